/* The least that a pair of C programs does for the same service; the yardstick of invoke_bench.
 *
 * The exchange over the Unix-domain socket is talvek's: the client sends its environment and gets
 * it back, sends a command and gets its status, with which it ends. The daemon forks a child for
 * each client, which sets the environment and runs the command by system(). What talvek does beyond
 * that is left out: package headers with checksums, log lines, time-outs, packages that arrive in
 * parts, signals that end the daemon, sockets of an earlier one.
 *
 *   bare_pair -D <socket>             daemon, in the foreground
 *   bare_pair -C <socket> <command>   client
 */

#include <signal.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

/* The environment, each string with its NUL; then the command. */
static char g_message[65536];

static struct sockaddr_un AddressOf(const char *path) {
    struct sockaddr_un address = {.sun_family = AF_UNIX};
    memcpy(address.sun_path, path, strnlen(path, sizeof address.sun_path - 1));
    return address;
}

static size_t Append(size_t size, const char *string) {
    const size_t length = strlen(string) + 1;
    if (length > sizeof g_message - size) {
        return size;
    }
    memcpy(g_message + size, string, length);
    return size + length;
}

static int RunClient(const char *path, const char *command) {
    size_t size = 0;
    for (char **string = environ; *string != NULL; ++string) {
        size = Append(size, *string);
    }
    const struct sockaddr_un address = AddressOf(path);
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    int32_t status = 1;
    if (connect(fd, (const struct sockaddr *)&address, sizeof address) != 0 ||
        write(fd, g_message, size) != (ssize_t)size || read(fd, g_message, size) != (ssize_t)size ||
        write(fd, command, strlen(command) + 1) <= 0 ||
        read(fd, &status, sizeof status) != sizeof status) {
        return 1;
    }
    return status;
}

static void Serve(int fd) {
    const ssize_t size = read(fd, g_message, sizeof g_message);
    if (size <= 0 || write(fd, g_message, (size_t)size) != size) {
        return;
    }
    for (char *string = g_message; string < g_message + size;) {
        char *next = string + strlen(string) + 1;
        char *value = strchr(string, '=');
        if (value != NULL) {
            *value = '\0';
            setenv(string, value + 1, 1);
        }
        string = next;
    }
    if (read(fd, g_message, sizeof g_message) <= 0) {
        return;
    }
    signal(SIGCHLD, SIG_DFL);
    const int result = system(g_message);
    const int32_t status = WIFEXITED(result) ? WEXITSTATUS(result) : -1;
    (void)!write(fd, &status, sizeof status);
}

static int RunDaemon(const char *path) {
    const struct sockaddr_un address = AddressOf(path);
    const int listener = socket(AF_UNIX, SOCK_STREAM, 0);
    if (bind(listener, (const struct sockaddr *)&address, sizeof address) != 0 ||
        listen(listener, 128) != 0) {
        return 1;
    }
    signal(SIGCHLD, SIG_IGN);
    for (;;) {
        const int fd = accept(listener, NULL, NULL);
        if (fork() == 0) {
            close(listener);
            Serve(fd);
            _exit(0);
        }
        close(fd);
    }
}

int main(int argc, char **argv) {
    if (argc == 3 && strcmp(argv[1], "-D") == 0) {
        return RunDaemon(argv[2]);
    }
    if (argc == 4 && strcmp(argv[1], "-C") == 0) {
        return RunClient(argv[2], argv[3]);
    }
    return 2;
}
