#pragma once

#include <sys/stat.h>

#include <functional>
#include <string>

// A small text file that many programs change at once and others read: no change is lost, no
// reader sees half a change, and each version has another time in whole seconds.
//
// A change reads the file and moves a new one into its place, for which the directory must be
// writable. Meanwhile an exclusive flock on the directory, which stays the same when files are
// renamed, keeps other changes out, and a shared one on the file those programs that write it in
// place; readers need not wait. Killed meanwhile, it leaves one version or the other, and perhaps
// a temporary file, which the next change removes.
//
// The new file has the owner, group, mode and access list of the old one, as far as the caller may
// give them. In a group's directory, one with the setgid bit, it has the directory's group and
// mode. It never has more readers.
class SharedFile {
public:
    // Changes a text; false to leave the file as it is.
    using Edit = std::function<bool(std::string& text)>;

    explicit SharedFile(const std::string& filePath);

    // Changes the file, once, by `edit`, which is called again if the file changed meanwhile. A
    // missing file counts as empty and is made in any case, NUL bytes count as blanks and are
    // replaced by them. Waits for locks without limit. False if it could not be done; the file is
    // then as it was.
    bool update(const Edit& edit);

    // What failed, for the user, and the exit status for it (sysexits.h); after a success a
    // warning, or empty, and 0.
    std::string problem;
    int status = 0;

private:
    enum class Outcome { done, repeat, failed };

    Outcome attempt(const Edit& edit);
    Outcome replace(int oldFile, const std::string& text);
    bool fillNew(int newFile, int oldFile, const std::string& text) const;
    bool copyAttributes(int newFile, int oldFile) const;
    void removeLeftovers() const;
    bool isUnchanged() const;
    Outcome fail(int error);
    Outcome fail(const char* reason, int exitStatus);

    std::string path;
    std::string name;         // in the directory
    int directory = -1;       // open and locked
    struct stat folder = {};  // the directory, as it was found
    struct stat found = {};   // the file, if there is one: st_nlink is 0 otherwise
};
