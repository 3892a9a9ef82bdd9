#ifndef TALVEK_FUZZ_SUPPORT_WORLD_H
#define TALVEK_FUZZ_SUPPORT_WORLD_H

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/statfs.h>

#include <initializer_list>
#include <list>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/support/input.h"

namespace talvek::fuzz {

// The file system that the code under test sees while this object lives: the files and directories
// that were added, and nothing else. A path that does not exist cannot be opened for writing
// either. What would change the machine (mount, mkdir, mknod, unlink, kill ...) succeeds and does
// nothing; no process is started. What is printed on standard error is dropped.
//
// The calls are caught when the program is linked (ld --wrap): CMakeLists.txt lists them.
class World {
  public:
    World();
    ~World();
    World(const World &) = delete;
    World &operator=(const World &) = delete;

    // Paths are not copied: they must outlive the world.
    void AddFile(const char *pPath, Bytes content) { AddFiles({pPath}, content); }
    // Files with the same content, which are links to one file.
    void AddFiles(std::initializer_list<const char *> paths, Bytes content);
    void AddDirectory(const char *pPath, std::vector<std::string> names);
    // The content of a file that was added.
    [[nodiscard]] std::vector<uint8_t> Content(const char *pPath) const;

    // What statfs returns for every path.
    struct statfs space = {};
    // The status of every command that is run by a shell, the commands, and the variables that
    // were set with setenv; the environment itself does not change.
    int commandStatus = 0;
    std::vector<std::string> commands;
    std::vector<std::string> variables;

    // For the calls that are caught.
    struct File {
        std::string_view path;
        int fd;
    };
    struct Directory {
        std::string_view path;
        std::vector<std::string> names;
    };
    [[nodiscard]] const File *Find(const char *pPath) const;
    [[nodiscard]] const Directory *FindDirectory(const char *pPath) const;
    std::list<std::string> temporary;  // paths of temporary files

  private:
    std::vector<File> files_;
    std::vector<int> fds_;
    std::vector<Directory> directories_;
    FILE *stderr_;
};

// A descriptor of a file in memory, at its start. The caller closes it.
int OpenMemory(Bytes content);

}  // namespace talvek::fuzz

#endif
