#include "linux/desktop/qt_about_window.h"

#include <QApplication>
#include <QLabel>
#include <QPainter>
#include <QScreen>

#include <cmath>

#include "recording/log.h"

namespace gb::linuxp {
namespace {

// Style mask bits of a described window.
constexpr unsigned kTitled = 1;
constexpr unsigned kClosable = 2;
constexpr unsigned kMiniaturizable = 4;
constexpr unsigned kResizable = 8;

// Window levels from floating up stay above ordinary windows.
constexpr int kFloatingLevel = 3;

QString qText(const std::string& text) {
    return QString::fromStdString(text);
}

Qt::WindowFlags flagsFor(unsigned styleMask, int level) {
    Qt::WindowFlags flags = Qt::Window | Qt::CustomizeWindowHint;
    if ((styleMask & kTitled) == 0) flags |= Qt::FramelessWindowHint;
    if ((styleMask & kTitled) != 0) flags |= Qt::WindowTitleHint;
    if ((styleMask & kClosable) != 0) flags |= Qt::WindowCloseButtonHint;
    if ((styleMask & kMiniaturizable) != 0) flags |= Qt::WindowMinimizeButtonHint;
    if ((styleMask & kResizable) != 0) flags |= Qt::WindowMaximizeButtonHint;
    if (level >= kFloatingLevel) flags |= Qt::WindowStaysOnTopHint;
    return flags;
}

// The icon of an image view: the described file when it loads, else the program's own icon.
QIcon iconFor(const ViewDescription& view) {
    if (!view.imagePath.empty()) {
        QIcon icon(qText(view.imagePath));
        if (!icon.pixmap(QSize(64, 64)).isNull()) return icon;
    }
    QIcon own = QApplication::windowIcon();
    if (own.isNull()) own = QIcon(QStringLiteral(":/icons/glimmerbox.svg"));
    return own;
}

QLabel* makeLabel(const ViewDescription& view, QWidget* parent) {
    auto* label = new QLabel(qText(view.text), parent);
    label->setTextFormat(Qt::PlainText);
    QFont font = QApplication::font();
    if (view.fontSize > 0) font.setPixelSize(static_cast<int>(std::lround(view.fontSize)));
    font.setWeight(view.fontWeight == FontWeight::bold ? QFont::Bold : QFont::Normal);
    label->setFont(font);
    const Qt::Alignment horizontal =
        view.alignment == TextAlignment::center ? Qt::AlignHCenter : Qt::AlignLeft;
    label->setAlignment(horizontal | Qt::AlignTop);
    label->setWordWrap(view.maximumNumberOfLines != 1 || view.lineBreak == LineBreak::byWord);
    if (view.color != TextColor::standard) {
        QPalette palette = label->palette();
        palette.setColor(QPalette::WindowText, labelColour(view.color, palette));
        label->setPalette(palette);
    }
    return label;
}

}  // namespace

ImageView::ImageView(QIcon icon, QWidget* parent) : QWidget(parent), icon_(std::move(icon)) {}

void ImageView::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    // Proportionally up or down, centred.
    icon_.paint(&painter, rect(), Qt::AlignCenter);
}

QColor labelColour(TextColor colour, const QPalette& palette) {
    QColor text = palette.color(QPalette::WindowText);
    switch (colour) {
        case TextColor::standard:
            break;
        case TextColor::label:
            text.setAlphaF(0.85F);
            break;
        case TextColor::secondaryLabel:
            text.setAlphaF(0.55F);
            break;
        case TextColor::tertiaryLabel:
            text.setAlphaF(0.35F);
            break;
    }
    return text;
}

QtWindow::QtWindow(const WindowDescription& description) {
    build(description);
    layOut(description);
}

QtWindow::~QtWindow() {
    delete widget_.data();
}

void QtWindow::build(const WindowDescription& d) {
    const WindowAttributes& a = d.attributes;
    widget_ = new QWidget(nullptr, flagsFor(a.styleMask, a.level));
    widget_->setObjectName(kContentViewId);
    widget_->setWindowTitle(qText(a.title));
    const int width = static_cast<int>(std::lround(a.contentWidth));
    const int height = static_cast<int>(std::lround(a.contentHeight));
    if ((a.styleMask & kResizable) != 0) {
        widget_->resize(width, height);
    } else {
        widget_->setFixedSize(width, height);
    }
    // A window kept after closing is only hidden by the close.
    widget_->setAttribute(Qt::WA_DeleteOnClose, a.releasedWhenClosed);
    if (a.centred) {
        if (const QScreen* screen = QGuiApplication::primaryScreen()) {
            widget_->move(screen->availableGeometry().center() - QPoint(width / 2, height / 2));
        }
    }

    for (const ViewDescription& v : d.views) {
        QWidget* parent = view(v.parent);
        if (parent == nullptr) {
            problems_.push_back("view \"" + v.id + "\" has an unknown parent \"" + v.parent + "\"");
            parent = widget_;
        }
        QWidget* created = nullptr;
        switch (v.kind) {
            case ViewKind::plain:
                created = new QWidget(parent);
                break;
            case ViewKind::image:
                created = new ImageView(iconFor(v), parent);
                break;
            case ViewKind::label:
                created = makeLabel(v, parent);
                break;
        }
        created->setObjectName(qText(v.id));
    }
}

void QtWindow::layOut(const WindowDescription& d) {
    const IntrinsicHeight intrinsic = [this](const ViewDescription& v,
                                             std::optional<double> width) -> std::optional<double> {
        if (v.kind != ViewKind::label) return std::nullopt;
        const auto* label = qobject_cast<const QLabel*>(view(v.id));
        if (label == nullptr) return std::nullopt;
        if (label->wordWrap() && width) {
            return label->heightForWidth(static_cast<int>(std::floor(*width)));
        }
        return label->sizeHint().height();
    };
    LayoutResult layout = solveLayout(d, intrinsic);
    for (const ViewDescription& v : d.views) {
        QWidget* widget = view(v.id);
        const LayoutFrame& frame = layout.frames[v.id];
        const auto parentFrame = layout.frames.find(v.parent);
        const double originX = parentFrame == layout.frames.end() ? 0 : parentFrame->second.x;
        const double originY = parentFrame == layout.frames.end() ? 0 : parentFrame->second.y;
        widget->setGeometry(static_cast<int>(std::lround(frame.x - originX)),
                            static_cast<int>(std::lround(frame.y - originY)),
                            static_cast<int>(std::lround(frame.width)),
                            static_cast<int>(std::lround(frame.height)));
    }
    for (std::string& problem : layout.problems) problems_.push_back(std::move(problem));
    for (const std::string& problem : problems_) {
        logLine("⚠️ Window \"" + d.attributes.title + "\": " + problem);
    }
}

QWidget* QtWindow::view(const std::string& id) const {
    if (widget_.isNull()) return nullptr;
    if (id == kContentViewId) return widget_.data();
    return widget_->findChild<QWidget*>(qText(id));
}

void QtWindow::setLevel(int level) {
    if (widget_.isNull()) return;
    const bool onTop = level >= kFloatingLevel;
    if (widget_->windowFlags().testFlag(Qt::WindowStaysOnTopHint) == onTop) return;
    // Changing the flags hides a shown window.
    const bool visible = widget_->isVisible();
    widget_->setWindowFlag(Qt::WindowStaysOnTopHint, onTop);
    if (visible) widget_->show();
}

void QtWindow::show() {
    if (widget_.isNull()) return;
    widget_->show();
    widget_->raise();
    widget_->activateWindow();
}

bool QtWindow::isVisible() const {
    return !widget_.isNull() && widget_->isVisible();
}

std::shared_ptr<Window> QtWindowSystem::makeWindow(const WindowDescription& d) {
    return std::make_shared<QtWindow>(d);
}

}  // namespace gb::linuxp
