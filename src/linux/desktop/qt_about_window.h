// Windows realised from a WindowDescription: a top-level QWidget of the content size, with plain
// views, image views and labels placed by the constraint solver.
//
// Sizes are in logical pixels, as the description's points are; fonts take the point size as
// pixel size, so the text fits the layout it was designed with.
//
// Threads: main thread only.
#pragma once

#include <QIcon>
#include <QPointer>
#include <QWidget>

#include <memory>
#include <string>
#include <vector>

#include "portable/constraint_layout.h"
#include "platform/user_interface.h"

class QLabel;

namespace gb::linuxp {

// An image view: draws its icon scaled proportionally into its rectangle, centred.
class ImageView final : public QWidget {
public:
    ImageView(QIcon icon, QWidget* parent);
    [[nodiscard]] const QIcon& icon() const { return icon_; }

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    QIcon icon_;
};

class QtWindow final : public Window {
public:
    // Builds and lays out the window; it is not shown.
    explicit QtWindow(const WindowDescription& description);
    ~QtWindow() override;
    QtWindow(const QtWindow&) = delete;
    QtWindow& operator=(const QtWindow&) = delete;

    // Level 3 (floating) and above keep the window above ordinary windows.
    void setLevel(int level) override;
    // Shows the window (again after a close), raises and activates it.
    void show() override;
    [[nodiscard]] bool isVisible() const override;

    // The top-level widget (its children are named by view id); null once a window released
    // when closed has been closed.
    [[nodiscard]] QWidget* widget() const { return widget_.data(); }
    [[nodiscard]] QWidget* view(const std::string& id) const;
    // What the layout could not satisfy (empty when everything was placed).
    [[nodiscard]] const std::vector<std::string>& layoutProblems() const { return problems_; }

private:
    void build(const WindowDescription& description);
    void layOut(const WindowDescription& description);

    QPointer<QWidget> widget_;
    std::vector<std::string> problems_;
};

class QtWindowSystem final : public WindowSystem {
public:
    [[nodiscard]] std::shared_ptr<Window> makeWindow(const WindowDescription& d) override;
};

// The colour of a label's text: the palette's text colour, fainter for secondary and tertiary
// labels.
[[nodiscard]] QColor labelColour(TextColor colour, const QPalette& palette);

}  // namespace gb::linuxp
