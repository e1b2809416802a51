#include "linux/desktop/qt_dialogs.h"

#include <QDir>
#include <QFileDialog>
#include <QLabel>
#include <QMessageBox>
#include <QPushButton>
#include <QTimer>

#include <string>
#include <vector>

#include "linux/desktop/qt_shell.h"
#include "recording/log.h"

namespace gb::linuxp {
namespace {

QString qText(const std::string& text) {
    return QString::fromStdString(text);
}

QMessageBox::Icon iconFor(AlertStyle style) {
    switch (style) {
        case AlertStyle::warning:
            return QMessageBox::Warning;
        case AlertStyle::informational:
            return QMessageBox::Information;
        case AlertStyle::critical:
            return QMessageBox::Critical;
    }
    return QMessageBox::Warning;
}

// A tray application has no active window when a dialog opens; without this the dialog may
// come up behind others, and without focus the keyboard cannot answer it.
void bringToFrontWhenShown(QWidget& dialog) {
    QTimer::singleShot(0, &dialog, [&dialog] {
        dialog.raise();
        dialog.activateWindow();
    });
}

// An alert without buttons gets "OK".
std::vector<std::string> buttonTitles(const AlertDescription& alert) {
    if (alert.buttons.empty()) return {"OK"};
    return alert.buttons;
}

}  // namespace

std::unique_ptr<QMessageBox> makeAlertBox(const AlertDescription& alert) {
    auto box = std::make_unique<QMessageBox>();
    box->setIcon(iconFor(alert.style));
    box->setWindowTitle(qText(alert.messageText));
    box->setText(qText(alert.messageText));
    box->setInformativeText(qText(alert.informativeText));
    box->setTextFormat(Qt::PlainText);
    // Qt's message box has no switches for these: the headline is bold, as alerts have it
    // elsewhere, and the message is plain text too (an error text may contain "<").
    if (auto* headline = box->findChild<QLabel*>(QStringLiteral("qt_msgbox_label"))) {
        QFont font = headline->font();
        font.setBold(true);
        headline->setFont(font);
    }
    if (auto* message = box->findChild<QLabel*>(QStringLiteral("qt_msgbox_informativelabel"))) {
        message->setTextFormat(Qt::PlainText);
    }
    box->setWindowModality(Qt::ApplicationModal);

    const std::vector<std::string> titles = buttonTitles(alert);
    for (size_t i = 0; i < titles.size(); ++i) {
        // The first button answers Return; a "Cancel" button answers Escape.
        const QMessageBox::ButtonRole role = i == 0                  ? QMessageBox::AcceptRole
                                             : titles[i] == "Cancel" ? QMessageBox::RejectRole
                                                                     : QMessageBox::ActionRole;
        QPushButton* button = box->addButton(qText(titles[i]), role);
        button->setObjectName(QStringLiteral("alertButton%1").arg(i));
        if (i == 0) box->setDefaultButton(button);
    }
    return box;
}

int QtAlertPresenter::runModal(const AlertDescription& alert) {
    std::unique_ptr<QMessageBox> box = makeAlertBox(alert);
    bringToFrontWhenShown(*box);
    if (uiDebugLogging()) {
        std::string titles;
        for (const std::string& title : buttonTitles(alert)) {
            titles += (titles.empty() ? "" : ", ") + title;
        }
        logLine("[alert] shown \"" + alert.messageText + "\" | " + alert.informativeText +
                " | buttons: " + titles);
    }
    box->exec();
    // buttons() lists by role, not in the order added: the pressed one tells its index by name.
    const QAbstractButton* pressed = box->clickedButton();
    const QString prefix = QStringLiteral("alertButton");
    const int index = pressed != nullptr && pressed->objectName().startsWith(prefix)
                          ? pressed->objectName().mid(prefix.size()).toInt()
                          : -1;
    if (uiDebugLogging()) logLine("[alert] closed with button " + std::to_string(index));
    return index;
}

std::unique_ptr<QFileDialog> makeFolderDialog(const FolderPickerOptions& options) {
    auto dialog = std::make_unique<QFileDialog>();
    // Qt's own dialog: it behaves alike on every desktop, portal or not.
    dialog->setOption(QFileDialog::DontUseNativeDialog, true);
    if (options.canChooseDirectories && !options.canChooseFiles) {
        dialog->setFileMode(QFileDialog::Directory);
        dialog->setOption(QFileDialog::ShowDirsOnly, true);
    } else {
        dialog->setFileMode(options.allowsMultipleSelection ? QFileDialog::ExistingFiles
                                                            : QFileDialog::ExistingFile);
    }
    if (!options.prompt.empty()) {
        dialog->setLabelText(QFileDialog::Accept, qText(options.prompt));
        dialog->setWindowTitle(qText(options.prompt));
    }
    dialog->setDirectory(QDir::home());
    dialog->setWindowModality(Qt::ApplicationModal);
    return dialog;
}

FolderPickerResult QtFolderPicker::runModal(const FolderPickerOptions& options) {
    std::unique_ptr<QFileDialog> dialog = makeFolderDialog(options);
    bringToFrontWhenShown(*dialog);
    FolderPickerResult result;
    if (dialog->exec() != QDialog::Accepted) return result;
    const QStringList chosen = dialog->selectedFiles();
    if (chosen.isEmpty()) return result;
    result.response = 1;
    result.url = QDir::cleanPath(chosen.front()).toStdString();
    return result;
}

}  // namespace gb::linuxp
