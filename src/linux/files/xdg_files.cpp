#include "linux/files/xdg_files.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <QSettings>
#include <QString>
#include <QUrl>
#include <QVariant>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <system_error>

#include "recording/log.h"

namespace gb::linuxp {
namespace {

std::optional<std::string> environment(const char* name) {
    const char* value = std::getenv(name);
    if (value == nullptr || *value == '\0') return std::nullopt;
    return std::string(value);
}

bool isAbsolute(const std::string& path) {
    return !path.empty() && path.front() == '/';
}

std::optional<std::string> homeDirectory() {
    auto home = environment("HOME");
    if (!home || !isAbsolute(*home)) return std::nullopt;
    return home;
}

std::optional<std::string> configDirectory() {
    if (auto config = environment("XDG_CONFIG_HOME"); config && isAbsolute(*config)) return config;
    if (auto home = homeDirectory()) return *home + "/.config";
    return std::nullopt;
}

// "$HOME/x" and "$HOME" become paths in the home folder; absolute paths stay; anything else is
// not a folder.
std::optional<std::string> expandHome(const std::string& value) {
    constexpr std::string_view home = "$HOME";
    if (value.compare(0, home.size(), home) == 0 &&
        (value.size() == home.size() || value[home.size()] == '/')) {
        auto dir = homeDirectory();
        if (!dir) return std::nullopt;
        return *dir + value.substr(home.size());
    }
    if (isAbsolute(value)) return value;
    return std::nullopt;
}

// The value of XDG_DOCUMENTS_DIR in a user-dirs.dirs file: shell assignments of double-quoted
// strings with backslash escapes; the last assignment counts.
std::optional<std::string> documentsFromUserDirs(const std::string& file) {
    std::ifstream in(file);
    if (!in) return std::nullopt;
    constexpr std::string_view key = "XDG_DOCUMENTS_DIR=";
    std::optional<std::string> found;
    std::string line;
    while (std::getline(in, line)) {
        size_t at = line.find_first_not_of(" \t");
        if (at == std::string::npos || line.compare(at, key.size(), key) != 0) continue;
        at += key.size();
        if (at >= line.size() || line[at] != '"') continue;
        std::string value;
        bool closed = false;
        for (size_t i = at + 1; i < line.size(); ++i) {
            if (line[i] == '\\' && i + 1 < line.size()) {
                value.push_back(line[++i]);
            } else if (line[i] == '"') {
                closed = true;
                break;
            } else {
                value.push_back(line[i]);
            }
        }
        if (!closed) continue;
        if (auto path = expandHome(value)) found = path;
    }
    return found;
}

bool isDirectory(const std::string& path) {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

// Makes one folder, private to the user whatever the umask; an existing folder is fine.
Result<void> makeFolder(const std::string& path) {
    if (::mkdir(path.c_str(), 0700) == 0) {
        if (::chmod(path.c_str(), 0700) != 0) return posixError(errno);
        return {};
    }
    const int error = errno;
    if (error == EEXIST) {
        if (isDirectory(path)) return {};
        struct stat info {};
        // Something else is in the way: a file, or a link to something that is not a folder.
        return posixError(::stat(path.c_str(), &info) == 0 ? ENOTDIR : error);
    }
    return posixError(error);
}

// ---- settings --------------------------------------------------------------------------------

const char* statusText(QSettings::Status status) {
    switch (status) {
        case QSettings::NoError:
            return "no error";
        case QSettings::AccessError:
            return "the file cannot be read or written";
        case QSettings::FormatError:
            return "the file is damaged";
    }
    return "unknown error";
}

std::optional<bool> boolFromVariant(const QVariant& value) {
    switch (value.typeId()) {
        case QMetaType::Bool:
            return value.toBool();
        case QMetaType::QString: {
            const QString text = value.toString().trimmed();
            if (text == QLatin1String("true") || text == QLatin1String("1")) return true;
            if (text == QLatin1String("false") || text == QLatin1String("0")) return false;
            return std::nullopt;
        }
        case QMetaType::Int:
        case QMetaType::UInt:
        case QMetaType::LongLong:
        case QMetaType::ULongLong: {
            const auto number = value.toLongLong();
            if (number == 0 || number == 1) return number == 1;
            return std::nullopt;
        }
        default:
            return std::nullopt;
    }
}

std::optional<std::string> pathFromVariant(const QVariant& value) {
    QString text;
    if (value.typeId() == QMetaType::QString) {
        text = value.toString();
    } else if (value.typeId() == QMetaType::QUrl) {
        text = value.toUrl().toString(QUrl::FullyEncoded);
    } else {
        return std::nullopt;
    }
    if (text.startsWith(QLatin1Char('/'))) return text.toStdString();
    if (!text.startsWith(QLatin1String("file:"), Qt::CaseInsensitive)) return std::nullopt;
    const QUrl url(text, QUrl::StrictMode);
    if (!url.isValid() || !url.isLocalFile() || !url.host().isEmpty()) return std::nullopt;
    const std::string path = url.toLocalFile().toStdString();
    if (!isAbsolute(path)) return std::nullopt;
    return path;
}

// ---- dates -----------------------------------------------------------------------------------

constexpr std::array<const char*, 12> kMonthNames = {
    "January", "February", "March",     "April",   "May",      "June",
    "July",    "August",   "September", "October", "November", "December"};
constexpr std::array<const char*, 7> kWeekdayNames = {"Sunday",   "Monday", "Tuesday", "Wednesday",
                                                      "Thursday", "Friday", "Saturday"};

void appendNumber(std::string& out, long long value, int minimumDigits) {
    std::string digits = std::to_string(value < 0 ? -value : value);
    if (value < 0) out.push_back('-');
    if (static_cast<int>(digits.size()) < minimumDigits) {
        out.append(static_cast<size_t>(minimumDigits) - digits.size(), '0');
    }
    out += digits;
}

void appendName(std::string& out, const char* name, int count) {
    if (count <= 3) {
        out.append(name, 3);
    } else {
        out += name;
    }
}

bool isPatternLetter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

}  // namespace

PlatformError posixError(int errorNumber) {
    return PlatformError{kPosixErrorDomain, errorNumber,
                         std::generic_category().message(errorNumber)};
}

// ---- XdgFileSystem ---------------------------------------------------------------------------

std::optional<std::string> XdgFileSystem::documentsDirectory() const {
    if (auto fromEnvironment = environment("XDG_DOCUMENTS_DIR")) {
        if (auto path = expandHome(*fromEnvironment)) return path;
    }
    if (auto config = configDirectory()) {
        if (auto path = documentsFromUserDirs(*config + "/user-dirs.dirs")) return path;
    }
    if (auto home = homeDirectory()) return *home + "/Documents";
    return std::nullopt;
}

Result<void> XdgFileSystem::createDirectory(const std::string& path, bool intermediates) {
    if (path.empty()) return posixError(ENOENT);
    if (isDirectory(path)) return {};
    if (!intermediates) return makeFolder(path);

    std::filesystem::path partial;
    for (const auto& part : std::filesystem::path(path)) {
        partial /= part;
        if (part.empty() || part == "." || part == ".." || part == "/") continue;
        if (auto made = makeFolder(partial.string()); !made) return made;
    }
    return {};
}

bool XdgFileSystem::fileExists(const std::string& path) const {
    struct stat info {};
    return ::lstat(path.c_str(), &info) == 0;
}

Result<void> XdgFileSystem::removeItem(const std::string& path) {
    struct stat info {};
    if (::lstat(path.c_str(), &info) != 0) return posixError(errno);
    if (S_ISDIR(info.st_mode)) return posixError(EISDIR);
    if (!S_ISREG(info.st_mode) && !S_ISLNK(info.st_mode)) return posixError(EBUSY);
    if (S_ISREG(info.st_mode)) {
        // A recorder holds its file locked while it writes it.
        const int fd = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
        if (fd >= 0) {
            const bool locked = ::flock(fd, LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
            ::close(fd);
            if (locked) return posixError(EBUSY);
        }
    }
    if (::unlink(path.c_str()) != 0) return posixError(errno);
    return {};
}

// ---- QSettingsDefaultsStore ------------------------------------------------------------------

std::optional<std::string> QSettingsDefaultsStore::defaultFilePath() {
    auto config = configDirectory();
    if (!config) return std::nullopt;
    return *config + "/Glimmerbox/Glimmerbox.conf";
}

QSettingsDefaultsStore::QSettingsDefaultsStore()
    : QSettingsDefaultsStore(defaultFilePath().value_or(std::string())) {}

QSettingsDefaultsStore::QSettingsDefaultsStore(std::string filePath)
    : filePath_(std::move(filePath)) {}

namespace {

// What identifies one version of a file.
struct FileSignature {
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;
    int64_t modifiedNanoseconds = 0;
    friend bool operator==(const FileSignature&, const FileSignature&) = default;
};

std::optional<FileSignature> signatureOf(const std::string& path) {
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0) return std::nullopt;
    return FileSignature{info.st_dev, info.st_ino, info.st_size,
                         int64_t{info.st_mtim.tv_sec} * 1'000'000'000 + info.st_mtim.tv_nsec};
}

// Settings files found damaged in this process. Qt keeps parsed files cached and re-reads a file
// only when it changed, so only the first reader of a damaged file hears of the damage; later
// readers would get whatever part of it could be parsed.
std::mutex& damagedFilesMutex() {
    static std::mutex mutex;
    return mutex;
}
std::map<std::string, FileSignature>& damagedFiles() {
    static std::map<std::string, FileSignature> files;  // guarded by damagedFilesMutex()
    return files;
}

// Whether the opened settings hold the file as it is on disk.
QSettings::Status inspect(const QSettings& settings, const std::string& file) {
    const auto signature = signatureOf(file);
    std::lock_guard lock(damagedFilesMutex());
    auto& damaged = damagedFiles();
    if (settings.status() == QSettings::FormatError) {
        if (signature) damaged[file] = *signature;
        return QSettings::FormatError;
    }
    if (const auto known = damaged.find(file); known != damaged.end()) {
        if (signature && known->second == *signature) return QSettings::FormatError;
        damaged.erase(known);
    }
    return settings.status();
}

// Reads one key under the store's mutex; absent when the file cannot be read.
std::optional<QVariant> readSetting(const std::string& file, const std::string& key,
                                    bool& reportedUnreadable) {
    if (file.empty()) return std::nullopt;
    QSettings settings(QString::fromStdString(file), QSettings::IniFormat);
    if (const auto status = inspect(settings, file); status != QSettings::NoError) {
        if (!reportedUnreadable) {
            reportedUnreadable = true;
            logLine("⚠️ Settings file " + file + " cannot be read (" + statusText(status) +
                    "); using the defaults");
        }
        return std::nullopt;
    }
    QVariant value = settings.value(QString::fromStdString(key));
    if (!value.isValid()) return std::nullopt;
    return value;
}

// Writes one key under the store's mutex; logs what went wrong.
void writeSetting(const std::string& file, const std::string& key, const QVariant& value) {
    if (file.empty()) {
        logLine("❌ Failed to save setting " + key + ": there is no home folder to keep it in");
        return;
    }
    const QString name = QString::fromStdString(file);
    bool damaged = false;
    {
        const QSettings existing(name, QSettings::IniFormat);
        damaged = inspect(existing, file) == QSettings::FormatError;
    }
    if (damaged) {
        // Writing would drop whatever the damaged file still holds: keep it for the user.
        const std::string kept = file + ".broken";
        if (std::rename(file.c_str(), kept.c_str()) != 0) {
            logLine("❌ Failed to save setting " + key + ": " + file +
                    " is damaged and cannot be moved aside (" +
                    posixError(errno).localizedDescription + ")");
            return;
        }
        logLine("⚠️ Settings file " + file + " was damaged; kept it as " + kept +
                " and started a new one");
    }
    QSettings settings(name, QSettings::IniFormat);
    settings.setValue(QString::fromStdString(key), value);
    settings.sync();
    if (settings.status() != QSettings::NoError) {
        logLine("❌ Failed to save setting " + key + " in " + file + ": " +
                statusText(settings.status()));
    }
}

}  // namespace

std::optional<bool> QSettingsDefaultsStore::boolForKey(const std::string& key) const {
    std::lock_guard lock(mutex_);
    const auto value = readSetting(filePath_, key, reportedUnreadable_);
    return value ? boolFromVariant(*value) : std::nullopt;
}

void QSettingsDefaultsStore::setBool(bool value, const std::string& key) {
    std::lock_guard lock(mutex_);
    writeSetting(filePath_, key, QVariant(value));
}

std::optional<std::string> QSettingsDefaultsStore::urlForKey(const std::string& key) const {
    std::lock_guard lock(mutex_);
    const auto value = readSetting(filePath_, key, reportedUnreadable_);
    return value ? pathFromVariant(*value) : std::nullopt;
}

void QSettingsDefaultsStore::setURL(const std::string& path, const std::string& key) {
    if (!isAbsolute(path)) {
        logLine("❌ Failed to save setting " + key + ": " + path + " is not an absolute path");
        return;
    }
    const QString url =
        QUrl::fromLocalFile(QString::fromStdString(path)).toString(QUrl::FullyEncoded);
    std::lock_guard lock(mutex_);
    writeSetting(filePath_, key, QVariant(url));
}

std::optional<std::string> QSettingsDefaultsStore::stringForKey(const std::string& key) const {
    std::lock_guard lock(mutex_);
    const auto value = readSetting(filePath_, key, reportedUnreadable_);
    if (!value || value->typeId() != QMetaType::QString) return std::nullopt;
    return value->toString().toStdString();
}

void QSettingsDefaultsStore::setString(const std::string& value, const std::string& key) {
    std::lock_guard lock(mutex_);
    writeSetting(filePath_, key, QVariant(QString::fromStdString(value)));
}

// ---- LocaleDateFormatter ---------------------------------------------------------------------

std::string LocaleDateFormatter::format(const std::string& pattern,
                                        std::chrono::system_clock::time_point date) const {
    using namespace std::chrono;
    const auto second = floor<seconds>(date);
    const auto fraction = duration_cast<nanoseconds>(date - second).count();
    const time_t time = system_clock::to_time_t(second);
    tzset();  // the user's current time zone, also after TZ changed
    struct tm local {};
    if (localtime_r(&time, &local) == nullptr) return {};

    std::string out;
    out.reserve(pattern.size() + 8);
    for (size_t i = 0; i < pattern.size();) {
        const char c = pattern[i];
        if (c == '\'') {
            if (i + 1 < pattern.size() && pattern[i + 1] == '\'') {
                out.push_back('\'');
                i += 2;
                continue;
            }
            // A quoted literal; '' inside it is one quote; an open quote runs to the end.
            for (++i; i < pattern.size(); ++i) {
                if (pattern[i] != '\'') {
                    out.push_back(pattern[i]);
                } else if (i + 1 < pattern.size() && pattern[i + 1] == '\'') {
                    out.push_back('\'');
                    ++i;
                } else {
                    ++i;
                    break;
                }
            }
            continue;
        }
        if (!isPatternLetter(c)) {
            out.push_back(c);
            ++i;
            continue;
        }
        size_t end = i;
        while (end < pattern.size() && pattern[end] == c) ++end;
        const int count = static_cast<int>(end - i);
        i = end;
        switch (c) {
            case 'y': {
                const long long year = local.tm_year + 1900LL;
                if (count == 2) {
                    appendNumber(out, year % 100, 2);
                } else {
                    appendNumber(out, year, count);
                }
                break;
            }
            case 'M':
                if (count >= 3) {
                    appendName(out, kMonthNames[static_cast<size_t>(local.tm_mon)], count);
                } else {
                    appendNumber(out, local.tm_mon + 1, count);
                }
                break;
            case 'E':
                appendName(out, kWeekdayNames[static_cast<size_t>(local.tm_wday)], count);
                break;
            case 'd':
                appendNumber(out, local.tm_mday, count);
                break;
            case 'H':
                appendNumber(out, local.tm_hour, count);
                break;
            case 'h':
                appendNumber(out, local.tm_hour % 12 == 0 ? 12 : local.tm_hour % 12, count);
                break;
            case 'm':
                appendNumber(out, local.tm_min, count);
                break;
            case 's':
                appendNumber(out, local.tm_sec, count);
                break;
            case 'S': {
                // The leading `count` digits of the fraction.
                std::string digits = std::to_string(fraction);
                digits.insert(0, 9 - digits.size(), '0');
                if (count <= 9) {
                    out.append(digits, 0, static_cast<size_t>(count));
                } else {
                    out += digits;
                    out.append(static_cast<size_t>(count) - 9, '0');
                }
                break;
            }
            case 'a':
                out += local.tm_hour < 12 ? "AM" : "PM";
                break;
            default:
                out.append(static_cast<size_t>(count), c);
                break;
        }
    }
    return out;
}

}  // namespace gb::linuxp
