/* Preloaded into a writer: notes every call that changes a file or folder, in order, with its data.

   POWERCUT_FOLDER is the folder that is watched, POWERCUT_LOG the file of notes. Each note is the
   struct below and two texts: the path, and the data or a second path. Only calls that succeeded
   are noted. One lock is held over the call and its note, so the notes have the calls' order. */

#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/uio.h>
#include <unistd.h>

enum { OPEN, WRITE, TRUNCATE, SYNC, CLOSE, RENAME, UNLINK, MKDIR, RMDIR };

struct note {
    int32_t kind;
    int32_t descriptor;
    int64_t number; /* the flags of an open, the place of a write, the size of a truncation */
    uint32_t first_bytes;
    uint32_t second_bytes;
};

static pthread_mutex_t lock = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;
static const char* folder;
static size_t folder_bytes;
static int notes = -1;
static char watched[1 << 16];

#define REAL(name) ((__typeof__(&name))dlsym(RTLD_NEXT, #name))

__attribute__((constructor)) static void begin(void) {
    const char* path = getenv("POWERCUT_LOG");
    folder = getenv("POWERCUT_FOLDER");
    if (folder == NULL || path == NULL) {
        return;
    }
    folder_bytes = strlen(folder);
    notes = REAL(open)(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
}

static void note(int kind, int descriptor, int64_t number, const char* first, const void* second,
                 size_t second_bytes) {
    int error = errno;
    struct note head = {kind, descriptor, number, (uint32_t)strlen(first), (uint32_t)second_bytes};
    struct iovec parts[] = {
        {&head, sizeof head}, {(void*)first, head.first_bytes}, {(void*)second, second_bytes}};
    ssize_t wanted = (ssize_t)(sizeof head + head.first_bytes + second_bytes);
    if (writev(notes, parts, 3) != wanted) {
        abort(); /* a log with a gap would be worse than none */
    }
    errno = error;
}

static int is_watched(int descriptor) {
    return descriptor >= 0 && descriptor < (int)sizeof watched && watched[descriptor];
}

/* Writes the absolute path into `absolute` and tells whether it is in the watched folder. */
static int in_folder(int at, const char* path, char absolute[PATH_MAX]) {
    char base[PATH_MAX] = "";
    if (notes < 0) {
        return 0;
    }
    if (path[0] != '/' && at == AT_FDCWD) {
        if (getcwd(base, sizeof base) == NULL) {
            return 0;
        }
    } else if (path[0] != '/') {
        char link[64];
        snprintf(link, sizeof link, "/proc/self/fd/%d", at);
        ssize_t length = readlink(link, base, sizeof base - 1);
        base[length < 0 ? 0 : length] = '\0';
    }
    int length = snprintf(absolute, PATH_MAX, "%s%s%s", base, base[0] ? "/" : "", path);
    return length < PATH_MAX && strncmp(absolute, folder, folder_bytes) == 0 &&
           (absolute[folder_bytes] == '/' || absolute[folder_bytes] == '\0');
}

static int opened(int descriptor, int at, const char* path, int flags) {
    char absolute[PATH_MAX];
    if (descriptor >= 0 && in_folder(at, path, absolute)) {
        if (descriptor >= (int)sizeof watched) {
            abort();
        }
        watched[descriptor] = 1;
        note(OPEN, descriptor, flags, absolute, "", 0);
    }
    return descriptor;
}

#define OPENING(name, at, parameters, arguments)                    \
    int name parameters {                                           \
        va_list rest;                                               \
        va_start(rest, flags);                                      \
        mode_t mode = flags & O_CREAT ? va_arg(rest, mode_t) : 0;   \
        va_end(rest);                                               \
        pthread_mutex_lock(&lock);                                  \
        int result = opened(REAL(name) arguments, at, path, flags); \
        pthread_mutex_unlock(&lock);                                \
        return result;                                              \
    }

OPENING(open, AT_FDCWD, (const char* path, int flags, ...), (path, flags, mode))
OPENING(open64, AT_FDCWD, (const char* path, int flags, ...), (path, flags, mode))
OPENING(openat, at, (int at, const char* path, int flags, ...), (at, path, flags, mode))
OPENING(openat64, at, (int at, const char* path, int flags, ...), (at, path, flags, mode))

/* A call by descriptor: `noted` runs when it has succeeded on a watched one. */
#define BY_DESCRIPTOR(type, name, parameters, arguments, noted) \
    type name parameters {                                      \
        pthread_mutex_lock(&lock);                              \
        type result = REAL(name) arguments;                     \
        if (result >= 0 && is_watched(descriptor)) {            \
            noted;                                              \
        }                                                       \
        pthread_mutex_unlock(&lock);                            \
        return result;                                          \
    }

BY_DESCRIPTOR(ssize_t, write, (int descriptor, const void* data, size_t size),
              (descriptor, data, size),
              note(WRITE, descriptor, lseek(descriptor, 0, SEEK_CUR) - result, "", data,
                   (size_t)result))
BY_DESCRIPTOR(ssize_t, pwrite, (int descriptor, const void* data, size_t size, off_t place),
              (descriptor, data, size, place),
              note(WRITE, descriptor, place, "", data, (size_t)result))
BY_DESCRIPTOR(ssize_t, pwrite64, (int descriptor, const void* data, size_t size, off64_t place),
              (descriptor, data, size, place),
              note(WRITE, descriptor, place, "", data, (size_t)result))
BY_DESCRIPTOR(int, ftruncate, (int descriptor, off_t size), (descriptor, size),
              note(TRUNCATE, descriptor, size, "", "", 0))
BY_DESCRIPTOR(int, ftruncate64, (int descriptor, off64_t size), (descriptor, size),
              note(TRUNCATE, descriptor, size, "", "", 0))
BY_DESCRIPTOR(int, fsync, (int descriptor), (descriptor), note(SYNC, descriptor, 0, "", "", 0))
BY_DESCRIPTOR(int, fdatasync, (int descriptor), (descriptor), note(SYNC, descriptor, 0, "", "", 0))
BY_DESCRIPTOR(int, close, (int descriptor), (descriptor), {
    watched[descriptor] = 0;
    note(CLOSE, descriptor, 0, "", "", 0);
})

/* A call by path, which stands in `path` as seen from `at`. */
#define BY_PATH(kind, at, name, parameters, arguments) \
    int name parameters {                              \
        char absolute[PATH_MAX];                       \
        pthread_mutex_lock(&lock);                     \
        int inside = in_folder(at, path, absolute);    \
        int result = REAL(name) arguments;             \
        if (result == 0 && inside) {                   \
            note(kind, -1, 0, absolute, "", 0);        \
        }                                              \
        pthread_mutex_unlock(&lock);                   \
        return result;                                 \
    }

BY_PATH(UNLINK, AT_FDCWD, unlink, (const char* path), (path))
BY_PATH(flags& AT_REMOVEDIR ? RMDIR : UNLINK, at, unlinkat, (int at, const char* path, int flags),
        (at, path, flags))
BY_PATH(MKDIR, AT_FDCWD, mkdir, (const char* path, mode_t mode), (path, mode))
BY_PATH(MKDIR, at, mkdirat, (int at, const char* path, mode_t mode), (at, path, mode))
BY_PATH(RMDIR, AT_FDCWD, rmdir, (const char* path), (path))

static int renamed(int result, int from, const char* path, int to, const char* target) {
    char old_path[PATH_MAX];
    char new_path[PATH_MAX];
    if (result == 0 && in_folder(from, path, old_path) && in_folder(to, target, new_path)) {
        note(RENAME, -1, 0, old_path, new_path, strlen(new_path));
    }
    return result;
}

int rename(const char* path, const char* target) {
    pthread_mutex_lock(&lock);
    int result = renamed(REAL(rename)(path, target), AT_FDCWD, path, AT_FDCWD, target);
    pthread_mutex_unlock(&lock);
    return result;
}

int renameat(int from, const char* path, int to, const char* target) {
    pthread_mutex_lock(&lock);
    int result = renamed(REAL(renameat)(from, path, to, target), from, path, to, target);
    pthread_mutex_unlock(&lock);
    return result;
}
