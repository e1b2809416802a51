// The modal dialogs: the alert (a message box) and the folder picker (Qt's own file dialog, the
// same on every desktop).
//
// Threads: main thread only. runModal runs a nested event loop until the user answers, so queued
// main-queue work and timers keep running meanwhile.
#pragma once

#include <memory>

#include "platform/user_interface.h"

class QFileDialog;
class QMessageBox;

namespace gb::linuxp {

class QtAlertPresenter final : public AlertPresenter {
public:
    // Application-modal; the first button is the default one. Returns the index of the pressed
    // button, or -1 when the box was closed without one.
    int runModal(const AlertDescription& alert) override;
};

// The message box for an alert: the message text as headline and window title, the informative
// text below it, the style's icon, and the buttons in order ("OK" when none are given).
[[nodiscard]] std::unique_ptr<QMessageBox> makeAlertBox(const AlertDescription& alert);

class QtFolderPicker final : public FolderPicker {
public:
    // Response 1 with the chosen path, or 0 and no path when cancelled.
    FolderPickerResult runModal(const FolderPickerOptions& options) override;
};

// The file dialog for the options: folders only (when files cannot be chosen), single or
// multiple selection, the prompt on the confirm button and in the title bar; starts in the home
// folder.
[[nodiscard]] std::unique_ptr<QFileDialog> makeFolderDialog(const FolderPickerOptions& options);

}  // namespace gb::linuxp
