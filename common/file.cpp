// Small file-system operations: directories, links, moves, line-wise editing, growing buffers.

#include "common/file.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <malloc.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/characters.h"
#include "base/cancel_guard.h"
#include "base/path.h"
#include "base/scope_exit.h"
#include "base/unique_dir.h"
#include "base/unique_fd.h"
#include "base/unique_stream.h"
#include "common/internal/module_log.h"

namespace talvek {
namespace {

// ---- directories ----

constexpr size_t kPrefixSize = 256;

// One directory; one that is there already will do.
int MakeOneDir(const char *pPath, mode_t mode) {
    if (mkdir(pPath, mode) == 0) {
        return 0;
    }
    if (errno == EEXIST) {
        struct stat st;
        if (stat(pPath, &st) == 0 && S_ISDIR(st.st_mode)) {
            return 0;
        }
        errno = EEXIST;
    }
    LOG_ERRNO_AS("COM_Mkdir", "mkdir(%s) error : %s\n", pPath);
    return -1;
}

// A path that grows by a name a level and shrinks again, so that the depth of a tree costs no
// more stack than its directories' own records.
class Path {
  public:
    // The text is shorter than PATH_MAX.
    explicit Path(const char *pText) : length_(strlen(pText)) { memcpy(text_, pText, length_ + 1); }

    [[nodiscard]] const char *text() const { return text_; }
    [[nodiscard]] size_t length() const { return length_; }
    // Adds "/name"; false, with errno set and the name cut, when that is longer than a path can be.
    bool Append(const char *pName) {
        const int added = snprintf(text_ + length_, sizeof text_ - length_, "/%s", pName);
        const size_t whole = length_ + static_cast<size_t>(added);
        length_ = whole < sizeof text_ ? whole : sizeof text_ - 1;
        if (whole < sizeof text_) {
            return true;
        }
        errno = ENAMETOOLONG;
        return false;
    }
    void CutTo(size_t length) {
        length_ = length;
        text_[length_] = '\0';
    }

  private:
    char text_[PATH_MAX];
    size_t length_;
};

// The directories that are being emptied, from the inside out.
struct OpenedDir {
    dev_t device;
    ino_t inode;
    const OpenedDir *outer;
};

bool IsOpened(const struct stat &st, const OpenedDir *pDirs) {
    for (; pDirs != nullptr; pDirs = pDirs->outer) {
        if (pDirs->device == st.st_dev && pDirs->inode == st.st_ino) {
            return true;
        }
    }
    return false;
}

class TreeRemover {
  public:
    TreeRemover(const char *pPath, bool recursive) : path_(pPath), recursive_(recursive) {
        struct stat st;
        if (lstat("/", &st) == 0) {
            root_ = {st.st_dev, st.st_ino, nullptr};
        }
    }

    // The result of _COM_RemoveFileInDir_ for the directory at path_.
    int Empty(bool removeSelf, const OpenedDir *pOuter);

  private:
    static constexpr const char *kEntry = "_COM_RemoveFileInDir_";

    int RemoveEntry(const char *pName, const OpenedDir *pDirs);

    Path path_;
    bool recursive_;
    OpenedDir root_ = {};
};

// Returns the number of removed entries, -1 for a failure.
int TreeRemover::RemoveEntry(const char *pName, const OpenedDir *pDirs) {
    const size_t outerLength = path_.length();
    const ScopeExit cut{[this, outerLength] { path_.CutTo(outerLength); }};
    struct stat st;
    if (!path_.Append(pName) || stat(path_.text(), &st) != 0) {
        LOG_ERRNO_AS(kEntry, "stat(%s) error : %s\n", path_.text());
        return -1;
    }
    if (!S_ISDIR(st.st_mode)) {
        if (unlink(path_.text()) != 0) {
            LOG_ERRNO_AS(kEntry, "unlink(%s) error : %s\n", path_.text());
            return -1;
        }
        return 1;
    }
    if (!recursive_) {
        return 0;
    }
    // Links are followed, so a link can lead back to a directory that is being emptied. The kernel
    // would give up after 40 rounds with this same error; by then two such links side by side
    // would have been followed 2 to the 40th times.
    if (IsOpened(st, pDirs)) {
        LOG_AS(kEntry, "stat(%s) error : %s\n", path_.text(), strerror(ELOOP));
        return -1;
    }
    return Empty(true, pDirs);
}

int TreeRemover::Empty(bool removeSelf, const OpenedDir *pOuter) {
    int removed = 0;
    bool failed = false;
    {
        const UniqueDir dir{opendir(path_.text())};
        struct stat st;
        bool mayEmpty = dir && fstat(dirfd(dir.get()), &st) == 0;
        // A link on a disk from outside must not cost the unit its root directory, nor must "..".
        // Held by RemoveFileInDir.RefusesTheRootDirectoryByAnyName.
        if (mayEmpty && IsOpened(st, &root_)) {
            errno = EINVAL;
            mayEmpty = false;
        }
        if (!mayEmpty) {
            LOG_ERRNO_AS(kEntry, "opendir(%s) error : %s\n", path_.text());
            return 0;
        }
        const OpenedDir opened{st.st_dev, st.st_ino, pOuter};
        const struct dirent *entry;
        while (errno = 0, (entry = readdir(dir.get())) != nullptr) {
            const char *name = entry->d_name;
            if (strcmp(name, ".") == 0 || strcmp(name, "..") == 0 ||
                strcmp(name, "lost+found") == 0) {
                continue;
            }
            const int count = RemoveEntry(name, &opened);
            failed = failed || count < 0;
            removed += count > 0 ? count : 0;
        }
        if (errno != 0) {
            LOG_ERRNO_AS(kEntry, "readdir(%s) error : %s\n", path_.text());
            failed = true;
        }
    }
    if (removeSelf) {
        if (rmdir(path_.text()) == 0) {
            ++removed;
        } else {
            LOG_ERRNO_AS(kEntry, "rmdir(%s) error : %s\n", path_.text());
        }
    }
    return failed ? -1 : removed;
}

// ---- descriptors ----

struct FileType {
    mode_t type;
    const char *text;
};

// "[RegularfFile]" is what readers of the log look for.
// Held by GetFdInfo.TellsEachFileType.
constexpr FileType kFileTypes[] = {
    {S_IFDIR, "Dir"},     {S_IFREG, "RegularfFile"}, {S_IFBLK, "BlockDev"},   {S_IFIFO, "FIFO"},
    {S_IFCHR, "CharDev"}, {S_IFSOCK, "Socket"},      {S_IFLNK, "SymbolLink"},
};

constexpr size_t kFdPathSize = 128;

void LogFdInfo(int fd, const char *pLink, const char *pPath, const struct stat &st) {
    constexpr const char *kEntry = "COM_GetFdInfo";
    LOG_AS(kEntry, "[%s] => [%s]\n", pLink, pPath);
    for (const FileType &row : kFileTypes) {
        if ((st.st_mode & S_IFMT) == row.type) {
            LOG_AS(kEntry, "(pid, fd, type) = (%d, %d, [%s])\n", getpid(), fd, row.text);
        }
    }
    if (S_ISREG(st.st_mode)) {
        LOG_AS(kEntry, "(size, cur_off) = (%ld, %ld)\n", static_cast<long>(st.st_size),
               static_cast<long>(lseek(fd, 0, SEEK_CUR)));
    }
}

// ---- moving ----

constexpr size_t kMoveBlock = 512;

ssize_t ReadBlock(int fd, char *pBlock, size_t size) {
    ssize_t count;
    do {
        count = read(fd, pBlock, size);
    } while (count < 0 && errno == EINTR);
    return count;
}

bool WriteWhole(int fd, const char *pBytes, size_t size) {
    while (size > 0) {
        const ssize_t count = write(fd, pBytes, size);
        if (count > 0) {
            pBytes += count;
            size -= static_cast<size_t>(count);
        } else if (count == 0) {
            // A device that takes nothing without an error would be asked for ever.
            errno = EIO;
            return false;
        } else if (errno != EINTR) {
            return false;
        }
    }
    return true;
}

// Meant for text: what stands behind a NUL in a block is left out.
// Held by RenameFile.WritesEachBlockUpToItsFirstNul.
int CopyText(int from, int to) {
    constexpr const char *kEntry = "COM_RenameFile";
    char block[kMoveBlock];
    for (;;) {
        const ssize_t count = ReadBlock(from, block, sizeof block);
        if (count < 0) {
            LOG_ERRNO_AS(kEntry, "read() failed : %s\n");
            return -1;
        }
        if (count == 0) {
            return 0;
        }
        if (!WriteWhole(to, block, strnlen(block, static_cast<size_t>(count)))) {
            LOG_ERRNO_AS(kEntry, "write() failed : %s");
            return -1;
        }
    }
}

bool IsSameFile(int fd, const char *pPath) {
    struct stat open;
    struct stat named;
    return fstat(fd, &open) == 0 && StatPath(pPath, &named) == 0 && open.st_dev == named.st_dev &&
           open.st_ino == named.st_ino;
}

// ---- line-wise editing ----

constexpr size_t kLineSize = 256;

// The characters of an item's key that are looked for.
size_t KeyLength(const tFileItem &item) {
    if (item.key_len <= 0) {
        return 0;
    }
    const size_t limit = static_cast<size_t>(item.key_len);
    return strnlen(item.key, limit < sizeof item.key ? limit : sizeof item.key);
}

bool Matches(const tFileItem &item, bool anywhere, const char *pLine) {
    const size_t length = KeyLength(item);
    if (length == 0) {
        return false;
    }
    return anywhere ? memmem(pLine, strlen(pLine), item.key, length) != nullptr
                    : BeginsIgnoringCase(pLine, item.key, length);
}

// One run of COM_ReplaceItemsInFile.
class LineEditor {
  public:
    LineEditor(const char *pFileName, tFileItemRequest &request)
        : fileName_(pFileName), request_(request), change_(request.find_only == 0) {}

    int Run();

  private:
    static constexpr const char *kEntry = "COM_ReplaceItemsInFile";

    bool Open();
    void EditLines();
    void AppendItems();
    void PutLine(const char *pText);
    void CopyBack();
    void Finish();
    tFileItem *FindItem(const char *pLine) const;
    void FailWrite(const char *pName) {
        LOG_ERRNO_AS(kEntry, "fprintf() fail : %s : %s", pName);
        result_ = -1;
    }

    const char *fileName_;
    tFileItemRequest &request_;
    bool change_;
    char copyName_[32] = "";
    UniqueFile copy_;
    UniqueFile file_;
    bool midLine_ = false;  // what was last written to the copy has no newline
    int result_ = -1;
    off_t copied_ = 0;
};

bool LineEditor::Open() {
    snprintf(copyName_, sizeof copyName_, "%s/COM_XXXXXX", "/var");
    UniqueFd made{mkostemp(copyName_, O_CLOEXEC)};
    if (!made) {
        LOG_ERRNO_AS(kEntry, "mkstemp() failed : %s\n");
        copyName_[0] = '\0';
        return false;
    }
    made.Reset();
    copy_.Reset(OpenStream(copyName_, "w+"));
    if (!copy_) {
        LOG_ERRNO_AS(kEntry, "fopen(%s) failed : %s\n", copyName_);
        return false;
    }
    file_.Reset(OpenStream(fileName_, "r+"));
    if (!file_ && errno == ENOENT) {
        file_.Reset(OpenStream(fileName_, "w+"));
    }
    if (!file_) {
        LOG_ERRNO_AS(kEntry, "fopen(%s) failed : %s\n", fileName_);
        return false;
    }
    return true;
}

tFileItem *LineEditor::FindItem(const char *pLine) const {
    for (int32_t i = 0; i < request_.count; ++i) {
        if (Matches(request_.pItems[i], request_.match_substring != 0, pLine)) {
            return &request_.pItems[i];
        }
    }
    return nullptr;
}

void LineEditor::PutLine(const char *pText) {
    if (fputs(pText, copy_.get()) < 0) {
        FailWrite(copyName_);
    }
}

void LineEditor::EditLines() {
    char line[kLineSize];
    while (result_ >= 0 && fgets(line, sizeof line, file_.get()) != nullptr) {
        tFileItem *item = FindItem(line);
        if (item != nullptr) {
            item->key_len = 0;
            ++result_;
            if (change_) {
                const int length = static_cast<int>(strnlen(item->line, sizeof item->line));
                snprintf(line, sizeof line, "%.*s%s", length, item->line, length > 0 ? "\n" : "");
            }
        }
        if (change_ && line[0] != '\0') {
            PutLine(line);
            midLine_ = strchr(line, '\n') == nullptr;
        }
    }
    if (result_ >= 0 && !feof(file_.get())) {
        LOG_ERRNO_AS(kEntry, "fgets(%s) failed : %s\n", fileName_);
        result_ = -1;
    }
}

void LineEditor::AppendItems() {
    for (int32_t i = 0; i < request_.count && result_ >= 0; ++i) {
        const tFileItem &item = request_.pItems[i];
        if (item.key_len < 1 || item.line[0] == '\0') {
            continue;
        }
        // A last line that was never ended does not run into the line that is added.
        // Held by ReplaceItemsInFile.EndsAnOpenLastLineBeforeItAppends.
        char line[sizeof item.line + 3];
        snprintf(line, sizeof line, "%s%.*s\n", midLine_ ? "\n" : "",
                 static_cast<int>(sizeof item.line), item.line);
        midLine_ = false;
        ++result_;
        PutLine(line);
    }
}

void LineEditor::CopyBack() {
    rewind(copy_.get());
    rewind(file_.get());
    char block[BUFSIZ];
    off_t length = 0;
    size_t count;
    while ((count = fread(block, 1, sizeof block, copy_.get())) > 0) {
        if (fwrite(block, 1, count, file_.get()) != count) {
            FailWrite(fileName_);
            return;
        }
        length += static_cast<off_t>(count);
    }
    if (!feof(copy_.get())) {
        LOG_ERRNO_AS(kEntry, "fgets(%s) failed : %s\n", copyName_);
        result_ = -1;
        return;
    }
    if (fflush(file_.get()) != 0) {
        FailWrite(fileName_);
        return;
    }
    copied_ = length;
}

void LineEditor::Finish() {
    if (result_ >= 0) {
        CopyBack();
    }
    // Whatever failed, the file is cut to what was copied back: an edit that failed leaves it
    // empty, never half edited. Held by ReplaceItemsInFileFault.LeavesTheFileWholeOrEmpty.
    file_.Reset();
    if (truncate(fileName_, result_ < 0 ? 0 : copied_) != 0) {
        LOG_ERRNO_PLAIN("truncate(%s) error : %s\n", fileName_);
    }
}

int LineEditor::Run() {
    const ScopeExit removeCopy{[this] {
        if (copyName_[0] != '\0' && unlink(copyName_) != 0) {
            LOG_ERRNO_AS(kEntry, "unlink(%s) failed : %s\n", copyName_);
        }
    }};
    if (Open()) {
        result_ = 0;
        EditLines();
        if (request_.append_unmatched != 0) {
            AppendItems();
        }
        if (result_ >= 0 && fflush(copy_.get()) != 0) {
            FailWrite(copyName_);
        }
    }
    if (change_) {
        Finish();
    }
    return result_;
}

}  // namespace
}  // namespace talvek

int COM_Mkdir(const char *pPath, mode_t mode) {
    if (pPath == nullptr || pPath[0] == '\0') {
        LOG("mkdir(%s) error : %s\n", talvek::Shown(pPath),
            strerror(pPath == nullptr ? EFAULT : ENOENT));
        return -1;
    }
    for (const char *slash = strchr(pPath + 1, '/'); slash != nullptr;
         slash = strchr(slash + 1, '/')) {
        const size_t length = static_cast<size_t>(slash - pPath) + 1;
        // A prefix that is cut would be another directory's name.
        if (length >= talvek::kPrefixSize) {
            LOG("mkdir(%.*s) error : %s\n", static_cast<int>(length), pPath,
                strerror(ENAMETOOLONG));
            return -1;
        }
        char prefix[talvek::kPrefixSize];
        snprintf(prefix, sizeof prefix, "%.*s", static_cast<int>(length), pPath);
        if (talvek::MakeOneDir(prefix, mode) != 0) {
            return -1;
        }
    }
    return talvek::MakeOneDir(pPath, mode);
}

int _COM_RemoveFileInDir_(int recursive, const char *pDir, int removeSelf) {
    int error = 0;
    if (pDir == nullptr) {
        error = EFAULT;
    } else if (pDir[0] == '/' && pDir[strspn(pDir, "/")] == '\0') {
        // An empty setting with a "/" behind it must not cost the unit its root directory.
        // Held by RemoveFileInDir.RefusesTheRootDirectory.
        error = EINVAL;
    } else if (strnlen(pDir, PATH_MAX) == PATH_MAX) {
        error = ENAMETOOLONG;
    }
    if (error != 0) {
        LOG("opendir(%s) error : %s\n", talvek::Shown(pDir), strerror(error));
        return 0;
    }
    return talvek::TreeRemover{pDir, recursive == 1}.Empty(removeSelf != 0, nullptr);
}

int COM_RemoveFileInDir(int recursive, const char *pDir) {
    return _COM_RemoveFileInDir_(recursive, pDir, 1);
}

int COM_RemoveRealFile(const char *pPath) {
    struct stat st;
    if (talvek::StatPath(pPath, &st) != 0) {
        LOG_ERRNO("stat(%s) error : %s\n", talvek::Shown(pPath));
        return -1;
    }
    char target[256] = "";
    const ssize_t length = readlink(pPath, target, sizeof target);
    if (length == static_cast<ssize_t>(sizeof target)) {
        // The text of the link may go on, and what is cut would be another file's name.
        LOG("unlink(%s) failed : %s\n", pPath, strerror(ENAMETOOLONG));
        return -1;
    }
    if (length < 0 && errno != EINVAL) {
        LOG_ERRNO("realpath(%s) failed : %s\n", pPath);
    }
    const char *name = length < 0 ? pPath : target;
    if (unlink(name) != 0) {
        LOG_ERRNO("unlink(%s) failed : %s\n", name);
        return -1;
    }
    return 0;
}

int COM_CreateSymbolLink(int mode, const char *pTarget, const char *pLink) {
    if (pTarget == nullptr || pLink == nullptr) {
        LOG("symlink(%s, %s) fail : %s\n", talvek::Shown(pTarget), talvek::Shown(pLink),
            strerror(EFAULT));
        return -1;
    }
    struct stat st;
    const bool exists = stat(pTarget, &st) == 0;
    if (mode == 2 && !exists) {
        LOG("skip link[%s] due to [%s] is not existed!\n", pLink, pTarget);
        return 0;
    }
    if ((mode == 0 && exists) || mode == 1) {
        unlink(pLink);
    }
    if (symlink(pTarget, pLink) != 0) {
        LOG_ERRNO("symlink(%s, %s) fail : %s\n", pTarget, pLink);
        return -1;
    }
    return 0;
}

int COM_GetFdInfo(int fd, char *pPath, int verbose) {
    if (fd < 0) {
        return -1;
    }
    char link[40];
    snprintf(link, sizeof link, "/proc/%d/fd/%d", getpid(), fd);
    char path[talvek::kFdPathSize + 1] = "";
    const ssize_t length = readlink(link, path, talvek::kFdPathSize);
    if (length < 0) {
        LOG_ERRNO("readlink(%s) fail : %s\n", link);
        return -1;
    }
    struct stat st;
    if (length == static_cast<ssize_t>(talvek::kFdPathSize)) {
        // The path may go on, and what is cut would be another file's name.
        LOG("stat(%s) fail : %s\n", path, strerror(ENAMETOOLONG));
        return -1;
    }
    if (stat(path, &st) != 0) {
        LOG_ERRNO("stat(%s) fail : %s\n", path);
        return -1;
    }
    if (verbose != 0) {
        talvek::LogFdInfo(fd, link, path, st);
    }
    if (pPath != nullptr) {
        memcpy(pPath, path, static_cast<size_t>(length) + 1);
    }
    return 0;
}

int COM_RenameFile(const char *pSrc, const char *pDst) {
    const talvek::UniqueFd from{talvek::OpenPath(pSrc, O_RDONLY)};
    if (!from) {
        LOG_ERRNO("open(%s) failed : %s\n", talvek::Shown(pSrc));
        return -1;
    }
    // A file that is moved onto itself stays as it is, as with rename; opening it for writing
    // would empty it.
    if (talvek::IsSameFile(from.get(), pDst)) {
        return 0;
    }
    talvek::UniqueFd to{talvek::OpenPath(pDst, O_WRONLY | O_CREAT | O_TRUNC, 0664)};
    if (!to) {
        LOG_ERRNO("open(%s) failed : %s\n", talvek::Shown(pDst));
        return -1;
    }
    if (talvek::CopyText(from.get(), to.get()) != 0) {
        return -1;
    }
    // Some file systems tell only here that there was no room.
    if (to.Close() != 0) {
        LOG_ERRNO("close(%s) failed : %s\n", pDst);
        return -1;
    }
    if (unlink(pSrc) != 0) {
        LOG_ERRNO("unlink(%s) failed : %s\n", pSrc);
    }
    return 0;
}

int COM_ReplaceItemsInFile(const char *pFileName, tFileItemRequest *pRequest) {
    if (pFileName == nullptr || pRequest == nullptr ||
        (pRequest->pItems == nullptr && pRequest->count > 0)) {
        return -1;
    }
    const talvek::CancelGuard guard;
    return talvek::LineEditor{pFileName, *pRequest}.Run();
}

void *COM_ReallocAndCopyBuf(size_t size, void **ppBuf, size_t offset, const void *pSrc,
                            size_t length) {
    if (ppBuf == nullptr) {
        return nullptr;
    }
    // A source inside the block moves with it.
    const uintptr_t old = reinterpret_cast<uintptr_t>(*ppBuf);
    const uintptr_t at = reinterpret_cast<uintptr_t>(pSrc);
    const bool inside = *ppBuf != nullptr && at >= old && at - old < malloc_usable_size(*ppBuf);
    // realloc to 0 bytes would release the block and report a failure.
    char *grown = static_cast<char *>(realloc(*ppBuf, size > 0 ? size : 1));
    if (grown == nullptr) {
        LOG_ERRNO("REALLOC(%d) failed : %s\n", static_cast<int>(size));
        return nullptr;
    }
    *ppBuf = grown;
    const size_t room = size > offset ? size - offset : 0;
    const size_t count = pSrc == nullptr ? 0 : length < room ? length : room;
    if (count > 0) {
        memmove(grown + offset, inside ? grown + (at - old) : pSrc, count);
    }
    if (room > count) {
        memset(grown + offset + count, 0, room - count);
    }
    return grown;
}

int COM_CloseFd(int *pFd) {
    if (pFd == nullptr || *pFd < 0) {
        return -1;
    }
    const int result = close(*pFd);
    *pFd = -1;
    return result;
}
