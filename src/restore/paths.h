// Names around a restore: the 1024-byte path buffer the restore works in,
// finding the directory that holds a name (Locator), making missing
// directories (make_path, make_dir), preparing the job's destination under
// the login's identity (make_restore_path), the rename rule for name
// conflicts and the hard-link table with postml.
//
// Requires: names are absolute or relative to the job's working directory
// and used as given. Directories made here get mode 0755 and the owner
// passed in (the job's login).
//
// A restore may run as root in directories that other users can write: no
// name is followed through a symbolic link that a user other than root or
// the restore's own could have planted (platform/safe_path.h), and what is
// made is then changed only through a descriptor of it, after checking
// that it is what was made (the restore's own user owns it; a file has one
// link).
// Fails: every failure is logged with the operation's prefix ("(make_path) ",
// "(make_dir) ", "(make_restore_path) ", "(postml) ") and returned as
// described at each operation.
#pragma once

#include <sys/types.h>

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/fd.h"
#include "protocol/restore_record.h"

namespace tavik::restore {

// A NUL-terminated name of at most protocol::kMaxNameLength bytes, edited in place.
class PathBuffer {
public:
    // False (and the buffer emptied) when `name` is too long or holds a NUL.
    [[nodiscard]] bool assign(std::string_view name);
    void clear() { text_[0] = '\0'; }
    const char* c_str() const { return text_.data(); }
    char* data() { return text_.data(); }
    size_t size() const;
    bool empty() const { return text_[0] == '\0'; }

private:
    std::array<char, protocol::kPathBufferSize> text_{};
};

// Whom new directories belong to.
struct Owner {
    uid_t uid = 0;
    gid_t gid = 0;
};

// Where a name is: a descriptor of the directory that holds it and its last
// component ("." when the name ends in "/": the directory itself).
struct Location {
    std::shared_ptr<const platform::UniqueFd> directory;
    std::string name;
    int dir() const { return directory->get(); }
    const char* base() const { return name.c_str(); }
};

// Finds the directories that hold names. The directory found last is kept:
// a restore sends a directory's entries one after another. The file systems
// of the directories found are remembered, so that what was written to them
// can be put on stable storage once, at the end (syncAll).
class Locator {
public:
    // False, with errno set, when the directory cannot be reached.
    [[nodiscard]] bool find(std::string_view path, Location& out);
    // Forgets the kept directory (after directories were made).
    void forget();
    // syncfs of every file system found; 0, or -1 with errno of the first
    // that failed.
    int syncAll() const;

private:
    void remember(int dirFd);

    std::string lastDirectory_;
    std::shared_ptr<const platform::UniqueFd> last_;
    // One descriptor per file system, opened for syncfs (an O_PATH one
    // cannot serve).
    std::vector<std::pair<dev_t, platform::UniqueFd>> fileSystems_;
};

// Makes every missing directory above the last component of `path` (mode
// 0755, chowned to `owner`). 0, or -1 with the name left cut at the
// component that failed.
int make_path(PathBuffer& path, const Owner& owner);

// Whether the object `fd` refers to is the one this process just made:
// owned by the effective user, of the type `type` (S_IFDIR, ...), and, when
// it is not a directory, with one link. Fails with EEXIST when something
// else now stands under its name.
[[nodiscard]] bool isOwnMaking(int fd, mode_t type);

// The destination directory: 0 when it exists and may be written and
// entered, or was made; -1 otherwise.
int make_dir(PathBuffer& path, const Owner& owner);

// In a child process: `becomeUser` (the identity switch; true when it
// worked or is not needed), then make_dir(root). 0 ready, 1 the identity
// switch failed, 2 the directory could not be made or used, -1 when the
// fork or the wait failed or the child was ended by a signal.
int make_restore_path(const std::string& root, const Owner& owner, const std::function<bool()>& becomeUser);

// The rename rule: the name gets the suffix ".AS1", or its ".AS<n>" suffix
// becomes ".AS<n+1>". False, with the name unchanged, when the new name would
// not fit the buffer.
[[nodiscard]] bool renameRule(PathBuffer& path);

// The hard-link table of one restore job.
class HardLinkTable {
public:
    static constexpr size_t kCapacity = 5000;

    // Forgets every entry and arms the one-time message.
    void reset();
    size_t count() const { return count_; }

    // 1: `path` was made a hard link to the name restored earlier for the
    // record's (dev, ino); 0: `path` is the first name and was entered;
    // -1: the link could not be made, or the table is full or out of memory.
    int postml(PathBuffer& path, const protocol::RestoreAttributes& attributes, const Owner& owner, Locator& locator,
               bool verbose);

private:
    struct Entry {
        uint32_t dev = 0;
        uint32_t ino = 0;
        std::string name;
    };
    std::vector<Entry> entries_;
    size_t count_ = 0;  // kCapacity also marks the table as unusable
    bool reportOnce_ = true;
};

}  // namespace tavik::restore
