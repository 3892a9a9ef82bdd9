// Small file-system operations: directories, links, moves, line-wise editing, growing buffers.

#include "common/file.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <malloc.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "base/cancel_guard.h"
#include "base/characters.h"
#include "base/file_limit_guard.h"
#include "base/heap_buf.h"
#include "base/path.h"
#include "base/scope_exit.h"
#include "base/unique_dir.h"
#include "base/unique_fd.h"
#include "base/unique_stream.h"
#include "base/write_all.h"
#include "common/internal/module_log.h"

namespace {

// ---- directories ----

constexpr size_t kPrefixSize = 256;

// Makes one directory; an existing one is a success too.
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

// A path that grows by one name for each level, and shrinks again.
class Path {
  public:
    // Takes a text that is shorter than PATH_MAX; false without memory.
    bool Set(const char *pText) {
        if (!text_.Resize(PATH_MAX)) {
            return false;
        }
        length_ = strlen(pText);
        memcpy(text_.get(), pText, length_ + 1);
        return true;
    }
    [[nodiscard]] const char *text() const { return text_.get(); }
    [[nodiscard]] size_t length() const { return length_; }
    // Appends "/name". If the path would be too long, the name is truncated and the result is
    // false, with ENAMETOOLONG.
    bool Append(const char *pName) {
        const size_t room = PATH_MAX - length_;
        const int added = snprintf(text_.get() + length_, room, "/%s", pName);
        length_ += std::min(static_cast<size_t>(added), room - 1);
        if (static_cast<size_t>(added) < room) {
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
    talvek::HeapBuf<char> text_;
    size_t length_ = 0;
};

// One run of _COM_RemoveFileInDir_. Everything is examined and removed by its name in an open
// directory, never by its whole path: a link that replaces a directory on the way cannot lead the
// removal elsewhere. Paths are only logged. The depth of a tree costs no stack.
class TreeRemover {
  public:
    explicit TreeRemover(bool recursive) : recursive_(recursive) { stat("/", &root_); }

    int Run(const char *pDir, bool removeSelf);

  private:
    static constexpr const char *kFunction = "_COM_RemoveFileInDir_";

    // A directory that is being emptied.
    struct Level {
        DIR *dir;
        struct stat identity;
        size_t pathLength;
        Level *outer;
    };

    // Opens a directory by its name in the innermost one and makes it the innermost. path_ is
    // already its path.
    bool Push(const char *pName, int flags);
    void Pop();
    bool MayBeEmptied(const struct stat &st);
    // The next entry of the innermost directory; NULL at its end.
    const char *NextName();
    void RemoveEntry(const char *pName);
    void RemoveInnermost();
    [[nodiscard]] int InnermostFd() const {
        return innermost_ != nullptr ? dirfd(innermost_->dir) : AT_FDCWD;
    }
    void Fail(const char *pCall) {
        LOG_ERRNO_AS(kFunction, "%s(%s) error : %s\n", pCall, path_.text());
        failed_ = true;
    }

    Path path_;
    bool recursive_;
    struct stat root_ = {};
    Level *innermost_ = nullptr;
    int removed_ = 0;
    bool failed_ = false;
};

// Whether the opened directory may be emptied; logged if not.
bool TreeRemover::MayBeEmptied(const struct stat &st) {
    // A link on a disk from outside must not cost the unit its root directory, nor must "..".
    // Tested by RemoveFileInDir.RefusesTheRootDirectoryByAnyName.
    if (talvek::IsSameFile(st, root_)) {
        LOG_AS(kFunction, "opendir(%s) error : %s\n", path_.text(), strerror(EINVAL));
        return false;
    }
    // Links are followed, so a link can lead back to a directory that is being emptied. The kernel
    // refuses a path with more than 40 links, with this same error. But with two such links in one
    // directory, 2 to the 40th paths would be tried before that.
    for (const Level *level = innermost_; level != nullptr; level = level->outer) {
        if (talvek::IsSameFile(st, level->identity)) {
            errno = ELOOP;
            Fail("stat");
            return false;
        }
    }
    return true;
}

bool TreeRemover::Push(const char *pName, int flags) {
    auto level = talvek::HeapBuf<Level>::Zeroed(1);
    talvek::UniqueFd fd{openat(InnermostFd(), pName, O_RDONLY | O_DIRECTORY | O_CLOEXEC | flags)};
    const bool opened = level && fd && fstat(fd.get(), &level[0].identity) == 0;
    if (opened && !MayBeEmptied(level[0].identity)) {
        return false;
    }
    if (!opened || (level[0].dir = fdopendir(fd.get())) == nullptr) {
        LOG_ERRNO_AS(kFunction, "opendir(%s) error : %s\n", path_.text());
        return false;
    }
    static_cast<void>(fd.Release());
    level[0].pathLength = path_.length();
    level[0].outer = innermost_;
    innermost_ = level.Release();
    return true;
}

void TreeRemover::Pop() {
    const talvek::HeapBuf<Level> level{innermost_};
    const talvek::UniqueDir dir{innermost_->dir};
    innermost_ = innermost_->outer;
}

const char *TreeRemover::NextName() {
    const struct dirent *entry;
    while (errno = 0, (entry = readdir(innermost_->dir)) != nullptr) {
        const char *name = entry->d_name;
        if (strcmp(name, ".") != 0 && strcmp(name, "..") != 0 && strcmp(name, "lost+found") != 0) {
            return name;
        }
    }
    if (errno != 0) {
        Fail("readdir");
    }
    return nullptr;
}

// A link counts as what it leads to. A directory that has become a link since it was examined is
// not opened.
void TreeRemover::RemoveEntry(const char *pName) {
    const int dir = InnermostFd();
    struct stat st;
    bool examined = path_.Append(pName) && fstatat(dir, pName, &st, AT_SYMLINK_NOFOLLOW) == 0;
    const bool isLink = examined && S_ISLNK(st.st_mode);
    if (isLink) {
        examined = fstatat(dir, pName, &st, 0) == 0;
    }
    if (!examined) {
        Fail("stat");
    } else if (S_ISDIR(st.st_mode)) {
        if (recursive_ && Push(pName, isLink ? 0 : O_NOFOLLOW)) {
            return;
        }
    } else if (unlinkat(dir, pName, 0) == 0) {
        ++removed_;
    } else {
        Fail("unlink");
    }
    path_.CutTo(innermost_->pathLength);
}

// Removes the innermost directory itself. A failure is logged but does not change the result.
void TreeRemover::RemoveInnermost() {
    Pop();
    const size_t outer = innermost_ != nullptr ? innermost_->pathLength + 1 : 0;
    if (unlinkat(InnermostFd(), path_.text() + outer, AT_REMOVEDIR) == 0) {
        ++removed_;
    } else {
        LOG_ERRNO_AS(kFunction, "rmdir(%s) error : %s\n", path_.text());
    }
    if (innermost_ != nullptr) {
        path_.CutTo(innermost_->pathLength);
    }
}

int TreeRemover::Run(const char *pDir, bool removeSelf) {
    if (!path_.Set(pDir)) {
        LOG_ERRNO_AS(kFunction, "opendir(%s) error : %s\n", pDir);
        return 0;
    }
    if (!Push(pDir, 0)) {
        return 0;  // logged
    }
    for (;;) {
        const char *name = NextName();
        if (name != nullptr) {
            RemoveEntry(name);
        } else if (innermost_->outer != nullptr || removeSelf) {
            RemoveInnermost();
        } else {
            Pop();
        }
        if (innermost_ == nullptr) {
            return failed_ ? -1 : removed_;
        }
    }
}

// ---- descriptors ----

struct FileType {
    mode_t type;
    const char *text;
};

// Readers of the log search for "[RegularfFile]". Tested by GetFdInfo.NamesEachFileType.
constexpr FileType kFileTypes[] = {
    {S_IFDIR, "Dir"},     {S_IFREG, "RegularfFile"}, {S_IFBLK, "BlockDev"},   {S_IFIFO, "FIFO"},
    {S_IFCHR, "CharDev"}, {S_IFSOCK, "Socket"},      {S_IFLNK, "SymbolLink"},
};

void LogFdInfo(int fd, const char *pLink, const char *pPath, const struct stat &st) {
    constexpr const char *kFunction = "COM_GetFdInfo";
    LOG_AS(kFunction, "[%s] => [%s]\n", pLink, pPath);
    for (const FileType &row : kFileTypes) {
        if ((st.st_mode & S_IFMT) == row.type) {
            LOG_AS(kFunction, "(pid, fd, type) = (%d, %d, [%s])\n", getpid(), fd, row.text);
        }
    }
    if (S_ISREG(st.st_mode)) {
        LOG_AS(kFunction, "(size, cur_off) = (%lld, %lld)\n", static_cast<long long>(st.st_size),
               static_cast<long long>(lseek(fd, 0, SEEK_CUR)));
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

// Meant for text: of each block, what follows its first NUL is left out.
// Tested by RenameFile.WritesEachBlockUpToItsFirstNul.
int CopyBlocks(int from, int to) {
    constexpr const char *kFunction = "COM_RenameFile";
    char block[kMoveBlock];
    for (;;) {
        const ssize_t count = ReadBlock(from, block, sizeof block);
        if (count < 0) {
            LOG_ERRNO_AS(kFunction, "read() failed : %s\n");
            return -1;
        }
        if (count == 0) {
            return 0;
        }
        const auto length = static_cast<ssize_t>(strnlen(block, static_cast<size_t>(count)));
        if (!talvek::WriteAll(to, block, length, talvek::Interrupted::kRepeats).complete()) {
            LOG_ERRNO_AS(kFunction, "write() failed : %s");
            return -1;
        }
    }
}

bool IsPathOf(const char *pPath, int fd) {
    struct stat open;
    struct stat named;
    return fstat(fd, &open) == 0 && talvek::StatPath(pPath, &named) == 0 &&
           talvek::IsSameFile(open, named);
}

// ---- line-wise editing ----

constexpr size_t kLineSize = 256;
constexpr size_t kCopyBlock = 1024;

// The characters of an item's key that are looked for.
size_t KeyLength(const tFileItem &item) {
    if (item.key_len <= 0) {
        return 0;
    }
    return strnlen(item.key, std::min(static_cast<size_t>(item.key_len), sizeof item.key));
}

bool Matches(const tFileItem &item, bool anywhere, const char *pLine) {
    const size_t length = KeyLength(item);
    if (length == 0) {
        return false;
    }
    return anywhere ? memmem(pLine, strlen(pLine), item.key, length) != nullptr
                    : talvek::BeginsIgnoringCase(pLine, item.key, length);
}

// One run of COM_ReplaceItemsInFile.
class LineEditor {
  public:
    LineEditor(const char *pFileName, tFileItemRequest &request)
        : fileName_(pFileName), request_(request), change_(request.find_only == 0) {}

    int Run();

  private:
    static constexpr const char *kFunction = "COM_ReplaceItemsInFile";

    bool Open();
    void EditLines();
    void AppendItems();
    void PutLine(const char *pText);
    bool Rewind(FILE *pStream, const char *pName);
    void CopyBack();
    void Finish();
    tFileItem *FindItem(const char *pLine) const;
    void FailWrite(const char *pName) {
        LOG_ERRNO_AS(kFunction, "fprintf() fail : %s : %s", pName);
        result_ = -1;
    }

    const char *fileName_;
    tFileItemRequest &request_;
    bool change_;
    char copyName_[32] = "";
    talvek::UniqueFile copy_;
    talvek::UniqueFile file_;
    bool midLine_ = false;  // the copy ends without a newline
    int result_ = -1;
    off_t copied_ = 0;
};

bool LineEditor::Open() {
    snprintf(copyName_, sizeof copyName_, "%s/COM_XXXXXX", "/var");
    talvek::UniqueFd made{mkostemp(copyName_, O_CLOEXEC)};
    if (!made) {
        LOG_ERRNO_AS(kFunction, "mkstemp() failed : %s\n");
        copyName_[0] = '\0';
        return false;
    }
    // Opened by its name, it could be another file: /var may be writable by others.
    copy_.Reset(talvek::StreamOn(made.Release(), "w+"));
    if (!copy_) {
        LOG_ERRNO_AS(kFunction, "fopen(%s) failed : %s\n", copyName_);
        return false;
    }
    file_.Reset(talvek::OpenStream(fileName_, "r+"));
    if (!file_ && errno == ENOENT) {
        file_.Reset(talvek::OpenStream(fileName_, "w+"));
    }
    if (!file_) {
        LOG_ERRNO_AS(kFunction, "fopen(%s) failed : %s\n", fileName_);
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
        LOG_ERRNO_AS(kFunction, "fgets(%s) failed : %s\n", fileName_);
        result_ = -1;
    }
}

void LineEditor::AppendItems() {
    for (int32_t i = 0; i < request_.count && result_ >= 0; ++i) {
        const tFileItem &item = request_.pItems[i];
        if (item.key_len < 1 || item.line[0] == '\0') {
            continue;
        }
        // A last line without a newline gets one, so that it does not run into the added line.
        // Tested by ReplaceItemsInFile.EndsAnOpenLastLineBeforeItAppends.
        char line[sizeof item.line + 3];
        snprintf(line, sizeof line, "%s%.*s\n", midLine_ ? "\n" : "",
                 static_cast<int>(sizeof item.line), item.line);
        midLine_ = false;
        ++result_;
        PutLine(line);
    }
}

bool LineEditor::Rewind(FILE *pStream, const char *pName) {
    if (fseeko(pStream, 0, SEEK_SET) == 0) {
        return true;
    }
    LOG_ERRNO_AS(kFunction, "fseek(%s) failed : %s\n", pName);
    result_ = -1;
    return false;
}

void LineEditor::CopyBack() {
    if (!Rewind(copy_.get(), copyName_) || !Rewind(file_.get(), fileName_)) {
        return;
    }
    char block[kCopyBlock];
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
        LOG_ERRNO_AS(kFunction, "fgets(%s) failed : %s\n", copyName_);
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
    // Whatever failed, the file is truncated to what was copied back: a failed edit leaves it
    // empty, never half edited. Tested by ReplaceItemsInFileFault.LeavesTheFileWholeOrEmpty.
    file_.Reset();
    if (truncate(fileName_, result_ < 0 ? 0 : copied_) != 0) {
        LOG_ERRNO_PLAIN("truncate(%s) error : %s\n", fileName_);
    }
}

int LineEditor::Run() {
    const talvek::ScopeExit removeCopy{[this] {
        if (copyName_[0] != '\0' && unlink(copyName_) != 0) {
            LOG_ERRNO_AS(kFunction, "unlink(%s) failed : %s\n", copyName_);
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

int COM_Mkdir(const char *pPath, mode_t mode) {
    const talvek::CancelGuard guard;
    if (pPath == nullptr || pPath[0] == '\0') {
        LOG("mkdir(%s) error : %s\n", talvek::Shown(pPath),
            strerror(pPath == nullptr ? EFAULT : ENOENT));
        return -1;
    }
    for (const char *slash = strchr(pPath + 1, '/'); slash != nullptr;
         slash = strchr(slash + 1, '/')) {
        const size_t length = static_cast<size_t>(slash - pPath) + 1;
        // A truncated prefix would be another directory's name.
        if (length >= kPrefixSize) {
            LOG("mkdir(%.*s) error : %s\n", static_cast<int>(length), pPath,
                strerror(ENAMETOOLONG));
            return -1;
        }
        char prefix[kPrefixSize];
        snprintf(prefix, sizeof prefix, "%.*s", static_cast<int>(length), pPath);
        if (MakeOneDir(prefix, mode) != 0) {
            return -1;
        }
    }
    return MakeOneDir(pPath, mode);
}

int _COM_RemoveFileInDir_(int recursive, const char *pDir, int removeSelf) {
    const talvek::CancelGuard guard;
    int error = 0;
    if (pDir == nullptr) {
        error = EFAULT;
    } else if (pDir[0] == '/' && pDir[strspn(pDir, "/")] == '\0') {
        // A "/" that is added to an empty setting must not cost the unit its root directory.
        // Tested by RemoveFileInDir.RefusesTheRootDirectory.
        error = EINVAL;
    } else if (strnlen(pDir, PATH_MAX) == PATH_MAX) {
        error = ENAMETOOLONG;
    }
    if (error != 0) {
        LOG("opendir(%s) error : %s\n", talvek::Shown(pDir), strerror(error));
        return 0;
    }
    return TreeRemover{recursive == COM_REMOVE_TREE}.Run(pDir, removeSelf != 0);
}

int COM_RemoveFileInDir(int recursive, const char *pDir) {
    return _COM_RemoveFileInDir_(recursive, pDir, 1);
}

int COM_RemoveRealFile(const char *pPath) {
    const talvek::CancelGuard guard;
    struct stat st;
    if (talvek::StatPath(pPath, &st) != 0) {
        LOG_ERRNO("stat(%s) error : %s\n", talvek::Shown(pPath));
        return -1;
    }
    char target[256] = "";
    const ssize_t length = readlink(pPath, target, sizeof target);
    if (length == static_cast<ssize_t>(sizeof target)) {
        // The text of the link may be longer, and a part of it would be another file's name.
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
    const talvek::CancelGuard guard;
    if (pTarget == nullptr || pLink == nullptr) {
        LOG("symlink(%s, %s) fail : %s\n", talvek::Shown(pTarget), talvek::Shown(pLink),
            strerror(EFAULT));
        return -1;
    }
    struct stat st;
    const bool exists = stat(pTarget, &st) == 0;
    if (mode == COM_LINK_IF_TARGET && !exists) {
        LOG("skip link[%s] due to [%s] is not existed!\n", pLink, pTarget);
        return 0;
    }
    if ((mode == COM_LINK_REPLACE_IF_TARGET && exists) || mode == COM_LINK_REPLACE) {
        unlink(pLink);
    }
    if (symlink(pTarget, pLink) != 0) {
        LOG_ERRNO("symlink(%s, %s) fail : %s\n", pTarget, pLink);
        return -1;
    }
    return 0;
}

int COM_GetFdInfo(int fd, char *pPath, int verbose) {
    const talvek::CancelGuard guard;
    if (fd < 0) {
        return -1;
    }
    char link[40];
    snprintf(link, sizeof link, "/proc/%d/fd/%d", getpid(), fd);
    char path[COM_FD_PATH_SIZE + 1] = "";
    const ssize_t length = readlink(link, path, COM_FD_PATH_SIZE);
    if (length < 0) {
        LOG_ERRNO("readlink(%s) fail : %s\n", link);
        return -1;
    }
    struct stat st;
    if (length == static_cast<ssize_t>(COM_FD_PATH_SIZE)) {
        // The path may be longer, and a part of it would be another file's name.
        LOG("stat(%s) fail : %s\n", path, strerror(ENAMETOOLONG));
        return -1;
    }
    if (stat(path, &st) != 0) {
        LOG_ERRNO("stat(%s) fail : %s\n", path);
        return -1;
    }
    if (verbose != 0) {
        LogFdInfo(fd, link, path, st);
    }
    if (pPath != nullptr) {
        memcpy(pPath, path, static_cast<size_t>(length) + 1);
    }
    return 0;
}

int COM_RenameFile(const char *pSrc, const char *pDst) {
    const talvek::CancelGuard guard;
    const talvek::UniqueFd from{talvek::OpenPath(pSrc, O_RDONLY)};
    if (!from) {
        LOG_ERRNO("open(%s) failed : %s\n", talvek::Shown(pSrc));
        return -1;
    }
    // A file that is moved onto itself is unchanged, as with rename; opening it for writing would
    // empty it.
    if (IsPathOf(pDst, from.get())) {
        return 0;
    }
    talvek::UniqueFd to{talvek::OpenPath(pDst, O_WRONLY | O_CREAT | O_TRUNC, 0664)};
    if (!to) {
        LOG_ERRNO("open(%s) failed : %s\n", talvek::Shown(pDst));
        return -1;
    }
    if (CopyBlocks(from.get(), to.get()) != 0) {
        return -1;
    }
    // Some file systems report only here that there was no room.
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
    const talvek::CancelGuard guard;
    if (pFileName == nullptr || pRequest == nullptr ||
        (pRequest->pItems == nullptr && pRequest->count > 0)) {
        return -1;
    }
    // The editor's streams write once more when they are closed.
    const talvek::FileLimitGuard limit;
    return LineEditor{pFileName, *pRequest}.Run();
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
    talvek::HeapBuf<char> block{static_cast<char *>(*ppBuf)};
    const bool resized = block.Resize(size);
    char *grown = block.Release();
    if (!resized) {
        LOG_ERRNO("REALLOC(%d) failed : %s\n", static_cast<int>(size));
        return nullptr;
    }
    *ppBuf = grown;
    const size_t room = size > offset ? size - offset : 0;
    size_t count = pSrc == nullptr ? 0 : std::min(length, room);
    if (inside) {
        pSrc = grown + (at - old);
        count = std::min(count, size > at - old ? size - (at - old) : 0);
    }
    if (count > 0) {
        memmove(grown + offset, pSrc, count);
    }
    if (room > count) {
        memset(grown + offset + count, 0, room - count);
    }
    return grown;
}

int COM_CloseFd(int *pFd) {
    const talvek::CancelGuard guard;
    if (pFd == nullptr || *pFd < 0) {
        return -1;
    }
    const int result = close(*pFd);
    *pFd = -1;
    return result;
}
