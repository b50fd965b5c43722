#include "sharedfile.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/random.h>
#include <sys/xattr.h>
#include <sysexits.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <ctime>

namespace {

constexpr const char* newSuffix = ".pinwatchd-";
constexpr const char* accessList = "system.posix_acl_access";
constexpr mode_t privateMode = 0600;                       // until the final one is set
constexpr std::size_t maxSize = std::size_t{1024} * 1024;  // readers have little memory
constexpr std::time_t day = 24L * 60 * 60;
constexpr std::uint64_t halfYear = 182 * day;

// An open file, closed with its locks at the end.
struct Descriptor {
    explicit Descriptor(int opened) : number(opened) {}
    ~Descriptor() {
        if (number >= 0) close(number);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    const int number;
};

std::uint64_t randomNumber() {
    std::uint64_t number = 0;
    return getrandom(&number, sizeof number, 0) < 0 ? 0 : number;
}

bool copyAccessList(int from, int to) {
    char list[4096];
    const ssize_t length = fgetxattr(from, accessList, list, sizeof list);
    if (length < 0) return errno == ENODATA || errno == ENOTSUP;
    return fsetxattr(to, accessList, list, static_cast<std::size_t>(length), 0) == 0;
}

}  // namespace

SharedFile::SharedFile(const std::string& filePath)
    : path(filePath), name(filePath.substr(filePath.rfind('/') + 1)) {}

bool SharedFile::update(const Edit& edit) {
    const std::string inside = path.substr(0, path.size() - name.size()) + ".";
    const Descriptor opened(open(inside.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    directory = opened.number;
    // A lock that cannot be had would cost the changes of others, so it is no change without one.
    if (directory < 0 || fstat(directory, &folder) != 0 ||
        faccessat(directory, ".", W_OK | X_OK, AT_EACCESS) != 0 || flock(directory, LOCK_EX) != 0) {
        fail(errno);
        problem.insert(0, "directory of ");
        return false;
    }
    removeLeftovers();

    Outcome outcome = Outcome::repeat;
    while (outcome == Outcome::repeat) outcome = attempt(edit);
    return outcome == Outcome::done;
}

SharedFile::Outcome SharedFile::attempt(const Edit& edit) {
    found = {};
    const Descriptor file(
        openat(directory, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    std::string text;
    if (file.number < 0) {
        if (errno == ELOOP) return fail("is a symbolic link", EX_NOINPUT);
        if (errno != ENOENT || name.empty()) return fail(errno);
    } else {
        // Looked at by its descriptor: the name may be another file's by now.
        if (flock(file.number, LOCK_SH) != 0 || fstat(file.number, &found) != 0) return fail(errno);
        if (!S_ISREG(found.st_mode)) return fail("is not a regular file", EX_NOINPUT);
        if (found.st_nlink == 0 || !isUnchanged()) return Outcome::repeat;
        if (found.st_nlink != 1) return fail("has a second name", EX_NOINPUT);
        // Root does not pass on what a directory's owner has got hold of.
        const bool ours = found.st_uid == folder.st_uid || found.st_uid == geteuid();
        if (geteuid() == 0 && !ours && (folder.st_mode & S_IWGRP) == 0) {
            return fail("belongs to another user than its directory", EX_NOPERM);
        }
        if (found.st_size > static_cast<off_t>(maxSize)) return fail(EFBIG);
        text.resize(static_cast<std::size_t>(found.st_size));
        const ssize_t length = read(file.number, text.data(), text.size());
        if (length < 0) return fail(errno);
        text.resize(static_cast<std::size_t>(length));
    }

    const bool mended = text.find('\0') != std::string::npos;
    std::replace(text.begin(), text.end(), '\0', ' ');
    if (!edit(text) && !mended && file.number >= 0) return Outcome::done;
    if (text.size() > maxSize) return fail(EFBIG);
    if (mended) problem = path + ": NUL bytes in it count as blanks";
    return replace(file.number, text);
}

SharedFile::Outcome SharedFile::replace(int oldFile, const std::string& text) {
    const std::string newName = name + newSuffix + std::to_string(randomNumber());
    const int flags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    const Descriptor newFile(
        openat(directory, newName.c_str(), flags, oldFile < 0 ? DEFFILEMODE : privateMode));
    if (newFile.number < 0) return fail(errno);
    const bool filled = fillNew(newFile.number, oldFile, text);
    const bool late = filled && !isUnchanged();
    if (filled && !late && renameat(directory, newName.c_str(), directory, name.c_str()) == 0) {
        fsync(directory);
        return Outcome::done;
    }
    const int error = errno;
    unlinkat(directory, newName.c_str(), 0);
    return late ? Outcome::repeat : fail(error);
}

bool SharedFile::fillNew(int newFile, int oldFile, const std::string& text) const {
    if (!copyAttributes(newFile, oldFile)) return false;
    errno = ENOSPC;  // what a short write means
    if (write(newFile, text.data(), text.size()) != static_cast<ssize_t>(text.size())) return false;
    // Counted up where the clock is not ahead, so that no time comes back. What times a file had
    // that is gone nobody knows; this one it cannot have had.
    std::time_t time = std::time(nullptr);
    if (oldFile < 0) time += day + static_cast<long>(randomNumber() % halfYear);
    const timespec times[] = {{0, UTIME_OMIT}, {std::max(time, found.st_mtim.tv_sec + 1), 0}};
    return futimens(newFile, times) == 0 && fsync(newFile) == 0;
}

bool SharedFile::copyAttributes(int newFile, int oldFile) const {
    // Made by root, it is the directory owner's to change.
    if (oldFile < 0 && geteuid() == 0 && fchown(newFile, folder.st_uid, folder.st_gid) != 0) {
        return false;
    }
    const mode_t readersMore = folder.st_mode & ~found.st_mode & (S_IRGRP | S_IROTH);
    const bool isGroups = found.st_gid == folder.st_gid && readersMore == 0;
    if ((folder.st_mode & S_ISGID) != 0 && (oldFile < 0 || isGroups)) {
        return fchmod(newFile, folder.st_mode & DEFFILEMODE) == 0;
    }
    if (oldFile < 0) return true;
    const bool owned = fchown(newFile, found.st_uid, found.st_gid) == 0;
    const bool grouped = owned || fchown(newFile, static_cast<uid_t>(-1), found.st_gid) == 0;
    fremovexattr(newFile, accessList);  // the directory's default one
    const mode_t mode = found.st_mode & ACCESSPERMS;
    if (fchmod(newFile, grouped ? mode : mode & ~mode_t{S_IRWXG}) != 0) return false;
    return !grouped || copyAccessList(oldFile, newFile);
}

void SharedFile::removeLeftovers() const {
    DIR* listing = fdopendir(dup(directory));
    if (!listing) return;
    const std::string prefix = name + newSuffix;
    while (const dirent* entry = readdir(listing)) {
        if (std::string(entry->d_name).rfind(prefix, 0) == 0) unlinkat(directory, entry->d_name, 0);
    }
    closedir(listing);
}

bool SharedFile::isUnchanged() const {
    struct stat now = {};  // stays so where there is no file, as `found` does
    fstatat(directory, name.c_str(), &now, AT_SYMLINK_NOFOLLOW);
    // Of the times the one that nobody sets, and that every change sets.
    return now.st_dev == found.st_dev && now.st_ino == found.st_ino &&
           now.st_nlink == found.st_nlink && now.st_uid == found.st_uid &&
           now.st_size == found.st_size && now.st_ctim.tv_sec == found.st_ctim.tv_sec &&
           now.st_ctim.tv_nsec == found.st_ctim.tv_nsec;
}

SharedFile::Outcome SharedFile::fail(int error) {
    int exitStatus = EX_IOERR;
    if (error == ENOENT || error == ENOTDIR || error == ELOOP) exitStatus = EX_NOINPUT;
    if (error == EACCES || error == EPERM || error == EROFS) exitStatus = EX_NOPERM;
    if (error == ENOSPC || error == EDQUOT) exitStatus = EX_CANTCREAT;
    return fail(std::strerror(error), exitStatus);
}

SharedFile::Outcome SharedFile::fail(const char* reason, int exitStatus) {
    problem = path + ": " + reason;
    status = exitStatus;
    return Outcome::failed;
}
