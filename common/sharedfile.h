#pragma once

#include <sys/stat.h>

#include <ctime>
#include <functional>
#include <string>

// A small file that many programs change at once and the daemon reads: no change is lost, no
// reader sees half a change, and each version has another time in whole seconds.
//
// A change reads the file and puts a new one in its place, with the owner, group, mode and
// access list of the old one. Meanwhile an exclusive flock on the directory, which stays the
// same when files are renamed, keeps other changes out, and a shared one on the file those
// publishers that write it in place; the daemon need not wait. Where the file cannot be
// replaced, for want of rights or of room, it is written in place if it fits a page, 4096 bytes,
// and then the daemon waits. Killed meanwhile, it leaves one version or the other, the later one
// perhaps with blank lines at the end.
class SharedFile {
public:
    // Changes a text; false to leave the file as it is.
    using Edit = std::function<bool(std::string& text)>;

    explicit SharedFile(const std::string& filePath);

    // Changes the file by `edit`, which is called again if the file changed meanwhile. A missing
    // file counts as empty and is made in any case, for to the daemon none is not an empty one.
    // False if it could not be done; the file is then as it was.
    bool update(const Edit& edit);

    // What failed, for the user, and the exit status for it (sysexits.h).
    std::string problem;
    int status = 0;

private:
    enum class Outcome { done, repeat, failed };

    // An open file, closed with its locks at the end.
    struct Descriptor {
        explicit Descriptor(int opened = -1) : number(opened) {}
        ~Descriptor();
        Descriptor(const Descriptor&) = delete;
        Descriptor& operator=(const Descriptor&) = delete;
        int number;
    };

    Outcome attempt(const Edit& edit);
    Outcome change(int file, std::string& text, const Edit& edit);
    Outcome replace(int oldFile, const std::string& text);
    bool fillNew(int newFile, int oldFile, const std::string& text) const;
    bool overwrite(int file, const std::string& oldText, const std::string& text) const;
    bool isAsRead() const;
    // Whether a version written in place now would get a time that the daemon does not know yet.
    // Only the file's owner can set one.
    bool hasTimeOfItsOwn() const;
    Outcome fail(int error);
    Outcome fail(const std::string& reason, int exitStatus);

    std::string path;
    std::string name;        // in the directory
    std::string newName;     // of the file that takes its place
    int directory = -1;      // for *at calls
    int directoryLock = -1;  // open for flock and fsync
    bool inPlace = false;
    int replaceError = 0;    // why it is done in place
    bool exists = false;     // as it was found
    struct stat found = {};  // if it exists
};
