#include "linux/desktop/tray_absence.h"

#include <QCoreApplication>
#include <QSystemTrayIcon>
#include <QTimer>

#include <utility>

namespace gb::linuxp {

void whenNoTrayHost(std::chrono::milliseconds grace, std::function<void()> then) {
    QTimer::singleShot(grace, QCoreApplication::instance(), [then = std::move(then)] {
        if (!QSystemTrayIcon::isSystemTrayAvailable()) then();
    });
}

}  // namespace gb::linuxp
