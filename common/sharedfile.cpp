#include "sharedfile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/xattr.h>
#include <sysexits.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {

constexpr const char* newSuffix = ".pinwatchd-alarm";
constexpr const char* accessList = "system.posix_acl_access";
constexpr mode_t modeBits = 0777;
constexpr mode_t groupBits = 070;
constexpr mode_t newMode = 0666;                           // of a first file, less the umask
constexpr mode_t privateMode = 0600;                       // until the old file's is set
constexpr std::size_t maxSize = std::size_t{1024} * 1024;  // the daemon's memory is limited as well
constexpr std::size_t pageSize = 4096;                     // the least of any architecture
constexpr std::time_t pollSeconds = 2;  // within which the daemon has read what it can read
constexpr timespec nap = {0, 100000000};

bool readAll(int file, std::string& text) {
    std::size_t length = 0;
    while (length < text.size()) {
        const ssize_t count =
            pread(file, &text[length], text.size() - length, static_cast<off_t>(length));
        if (count < 0) return false;
        if (count == 0) break;
        length += static_cast<std::size_t>(count);
    }
    text.resize(length);
    return true;
}

bool writeAll(int file, const std::string& text) {
    std::size_t length = 0;
    while (length < text.size()) {
        const ssize_t count =
            pwrite(file, text.data() + length, text.size() - length, static_cast<off_t>(length));
        if (count < 0) return false;
        length += static_cast<std::size_t>(count);
    }
    return true;
}

bool setTime(int file, timespec time) {
    const timespec times[] = {{0, UTIME_OMIT}, time};
    return futimens(file, times) == 0;
}

// The time of the version after one of the time `previous`: counted up where the clock is not
// ahead of it, so that no time comes back.
timespec nextTime(std::time_t previous) { return {std::max(std::time(nullptr), previous + 1), 0}; }

bool copyAccessList(int from, int to) {
    char list[4096];
    const ssize_t length = fgetxattr(from, accessList, list, sizeof list);
    if (length < 0) return errno == ENODATA || errno == ENOTSUP;
    return fsetxattr(to, accessList, list, static_cast<std::size_t>(length), 0) == 0;
}

}  // namespace

SharedFile::Descriptor::~Descriptor() {
    if (number >= 0) close(number);
}

SharedFile::SharedFile(const std::string& filePath)
    : path(filePath), name(filePath.substr(filePath.rfind('/') + 1)), newName(name + newSuffix) {}

bool SharedFile::update(const Edit& edit) {
    const std::string folder = path.substr(0, path.size() - name.size());
    const Descriptor opened(
        open(folder.empty() ? "." : folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    directory = opened.number;
    if (directory < 0) {
        fail(errno);
        problem = "directory " + folder + ": " + std::strerror(errno);
        return false;
    }

    // Who may not lock the directory does not replace.
    const Descriptor lock(openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    directoryLock = lock.number;
    inPlace = directoryLock < 0 || flock(directoryLock, LOCK_EX) != 0;
    replaceError = inPlace ? errno : 0;
    if (!inPlace) unlinkat(directory, newName.c_str(), 0);  // of one that was killed

    Outcome outcome = Outcome::repeat;
    while (outcome == Outcome::repeat) outcome = attempt(edit);
    return outcome == Outcome::done;
}

SharedFile::Outcome SharedFile::attempt(const Edit& edit) {
    found = {};
    exists = fstatat(directory, name.c_str(), &found, AT_SYMLINK_NOFOLLOW) == 0;
    if (!exists && (errno != ENOENT || name.empty())) return fail(errno);
    if (S_ISLNK(found.st_mode)) return fail("is a symbolic link", EX_NOINPUT);
    if (exists && !S_ISREG(found.st_mode)) return fail("is not a regular file", EX_NOINPUT);
    if (found.st_size > static_cast<off_t>(maxSize)) return fail(EFBIG);
    if (!hasTimeOfItsOwn()) {
        nanosleep(&nap, nullptr);
        return Outcome::repeat;
    }

    std::string text;
    const Descriptor file(
        exists ? openat(directory, name.c_str(),
                        (inPlace ? O_RDWR : O_RDONLY) | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC)
               : -1);
    if (exists) {
        if (file.number < 0 && errno == ENOENT) return Outcome::repeat;
        if (file.number < 0) return fail(inPlace ? replaceError : errno);
        flock(file.number, inPlace ? LOCK_EX : LOCK_SH);
        // Waited for, it may have been replaced or written.
        if (!isAsRead()) return Outcome::repeat;
        text.resize(static_cast<std::size_t>(found.st_size));
        if (!readAll(file.number, text)) return fail(errno);
        if (text.find('\0') != std::string::npos) return fail("holds NUL bytes", EX_DATAERR);
    }
    return change(file.number, text, edit);
}

SharedFile::Outcome SharedFile::change(int file, std::string& text, const Edit& edit) {
    const std::string oldText = text;
    // Blank lines at the end may be of one that was killed.
    if (inPlace) text.resize(std::min(text.size(), text.find_last_not_of('\n') + 2));
    if (!edit(text) && exists) return Outcome::done;
    if (text.size() > maxSize) return fail(EFBIG);
    if (!inPlace) return replace(file, text);
    if (!exists) return fail(replaceError);
    if (std::max(text.size(), oldText.size()) > pageSize) {
        fail(replaceError);
        problem += ", and more than the 4096 bytes that are changed in place";
        return Outcome::failed;
    }
    return overwrite(file, oldText, text) ? Outcome::done : fail(errno);
}

SharedFile::Outcome SharedFile::replace(int oldFile, const std::string& text) {
    const Descriptor newFile(openat(directory, newName.c_str(),
                                    O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                                    exists ? privateMode : newMode));
    const bool filled = newFile.number >= 0 && fillNew(newFile.number, oldFile, text);
    const bool late = filled && !isAsRead();  // another publisher replaced it meanwhile
    if (filled && !late && renameat(directory, newName.c_str(), directory, name.c_str()) == 0) {
        fsync(directoryLock);
        return Outcome::done;
    }
    if (!late) {
        inPlace = true;
        replaceError = errno;
    }
    if (newFile.number >= 0) unlinkat(directory, newName.c_str(), 0);
    return Outcome::repeat;
}

bool SharedFile::fillNew(int newFile, int oldFile, const std::string& text) const {
    if (exists) {
        // Of two losses, the owner of the file is the smaller, the change the greater.
        mode_t mode = found.st_mode & modeBits;
        if (fchown(newFile, found.st_uid, found.st_gid) != 0) {
            if (faccessat(directory, name.c_str(), W_OK, AT_EACCESS) == 0) return false;
            if (fchown(newFile, static_cast<uid_t>(-1), found.st_gid) != 0) mode &= ~groupBits;
        }
        fremovexattr(newFile, accessList);  // the directory's default one
        if (fchmod(newFile, mode) != 0 || !copyAccessList(oldFile, newFile)) return false;
    }
    // Of a file that was there before and is deleted nothing is known; few are ahead of the clock.
    const std::time_t previous = exists ? found.st_mtim.tv_sec : std::time(nullptr);
    return writeAll(newFile, text) && setTime(newFile, nextTime(previous)) && fsync(newFile) == 0;
}

bool SharedFile::overwrite(int file, const std::string& oldText, const std::string& text) const {
    // One write within a page, which a kill does not divide. What it has too much is blank lines.
    std::string padded = text;
    padded.resize(std::max(text.size(), oldText.size()), '\n');
    errno = ENOSPC;  // what a short write means
    if (pwrite(file, padded.data(), padded.size(), 0) == static_cast<ssize_t>(padded.size()) &&
        ftruncate(file, static_cast<off_t>(text.size())) == 0 &&
        (setTime(file, nextTime(found.st_mtim.tv_sec)) || errno == EPERM) && fsync(file) == 0) {
        return true;
    }
    const int error = errno;
    if (writeAll(file, oldText) && ftruncate(file, found.st_size) == 0) {
        setTime(file, found.st_mtim);
    }
    errno = error;
    return false;
}

bool SharedFile::hasTimeOfItsOwn() const {
    if (!exists || !inPlace || geteuid() == 0 || geteuid() == found.st_uid) return true;
    const std::time_t now = std::time(nullptr);
    const std::time_t last = found.st_mtim.tv_sec;
    // A time ahead of the clock has been read, or will not come before this version is.
    return now > last || (now > found.st_ctim.tv_sec + pollSeconds && now + 1 < last);
}

bool SharedFile::isAsRead() const {
    struct stat now = {};
    if (fstatat(directory, name.c_str(), &now, AT_SYMLINK_NOFOLLOW) != 0) return !exists;
    return exists && now.st_dev == found.st_dev && now.st_ino == found.st_ino &&
           now.st_size == found.st_size && now.st_mtim.tv_sec == found.st_mtim.tv_sec &&
           now.st_mtim.tv_nsec == found.st_mtim.tv_nsec;
}

SharedFile::Outcome SharedFile::fail(int error) {
    const bool noInput = error == ENOENT || error == ENOTDIR || error == ELOOP;
    const bool noRight = error == EACCES || error == EPERM || error == EROFS;
    return fail(std::strerror(error), noInput ? EX_NOINPUT : noRight ? EX_NOPERM : EX_IOERR);
}

SharedFile::Outcome SharedFile::fail(const std::string& reason, int exitStatus) {
    problem = path + ": " + reason;
    status = exitStatus;
    return Outcome::failed;
}
