/* Preloaded into a writer: notes every call that changes a file or folder, in order, with its data.

   POWERCUT_FOLDER is the folder that is watched, POWERCUT_LOG the file of notes. Each note is the
   struct below and two texts: the path, and the data or a second path. Only calls that succeeded
   are noted. One lock is held over the call and its note, so the notes have the calls' order.

   A sanitizer's runtime makes calls before its own versions of the C library's functions are ready.
   So the system is called directly, and the lock is our own. The names are those of 64-bit Linux.
 */

#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <sched.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/syscall.h>
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

static char locked;
static char* folder;
static size_t folder_bytes;
static int notes = -1;
static char watched[1 << 16];

static void lock(void) {
    while (__atomic_test_and_set(&locked, __ATOMIC_ACQUIRE)) {
        sched_yield();
    }
}

static void unlock(void) { __atomic_clear(&locked, __ATOMIC_RELEASE); }

__attribute__((constructor)) static void begin(void) {
    const char* path = getenv("POWERCUT_LOG");
    const char* watched_folder = getenv("POWERCUT_FOLDER");
    if (watched_folder == NULL || path == NULL) {
        return;
    }
    /* Asking for memory makes a sanitizer's runtime ready, before the first note. */
    folder_bytes = strlen(watched_folder);
    folder = malloc(folder_bytes + 1);
    memcpy(folder, watched_folder, folder_bytes + 1);
    notes =
        (int)syscall(SYS_openat, AT_FDCWD, path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
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

static void opened(int descriptor, int at, const char* path, int flags) {
    char absolute[PATH_MAX];
    if (descriptor >= 0 && in_folder(at, path, absolute)) {
        if (descriptor >= (int)sizeof watched) {
            abort();
        }
        watched[descriptor] = 1;
        note(OPEN, descriptor, flags, absolute, "", 0);
    }
}

#define OPENING(name, at, parameters)                                 \
    int name parameters {                                             \
        va_list rest;                                                 \
        va_start(rest, flags);                                        \
        mode_t mode = flags & O_CREAT ? va_arg(rest, mode_t) : 0;     \
        va_end(rest);                                                 \
        lock();                                                       \
        int result = (int)syscall(SYS_openat, at, path, flags, mode); \
        opened(result, at, path, flags);                              \
        unlock();                                                     \
        return result;                                                \
    }

OPENING(open, AT_FDCWD, (const char* path, int flags, ...))
OPENING(open64, AT_FDCWD, (const char* path, int flags, ...))
OPENING(openat, at, (int at, const char* path, int flags, ...))
OPENING(openat64, at, (int at, const char* path, int flags, ...))

/* A call by descriptor, with what it notes when it has succeeded on a watched one. */
#define BY_DESCRIPTOR(type, name, parameters, call, noted) \
    type name parameters {                                 \
        lock();                                            \
        type result = (type)syscall call;                  \
        if (result >= 0 && is_watched(descriptor)) {       \
            noted;                                         \
        }                                                  \
        unlock();                                          \
        return result;                                     \
    }

BY_DESCRIPTOR(ssize_t, write, (int descriptor, const void* data, size_t size),
              (SYS_write, descriptor, data, size),
              note(WRITE, descriptor, lseek(descriptor, 0, SEEK_CUR) - result, "", data,
                   (size_t)result))
BY_DESCRIPTOR(ssize_t, pwrite, (int descriptor, const void* data, size_t size, off_t place),
              (SYS_pwrite64, descriptor, data, size, place),
              note(WRITE, descriptor, place, "", data, (size_t)result))
BY_DESCRIPTOR(ssize_t, pwrite64, (int descriptor, const void* data, size_t size, off64_t place),
              (SYS_pwrite64, descriptor, data, size, place),
              note(WRITE, descriptor, place, "", data, (size_t)result))
BY_DESCRIPTOR(int, ftruncate, (int descriptor, off_t size), (SYS_ftruncate, descriptor, size),
              note(TRUNCATE, descriptor, size, "", "", 0))
BY_DESCRIPTOR(int, ftruncate64, (int descriptor, off64_t size), (SYS_ftruncate, descriptor, size),
              note(TRUNCATE, descriptor, size, "", "", 0))
BY_DESCRIPTOR(int, fsync, (int descriptor), (SYS_fsync, descriptor),
              note(SYNC, descriptor, 0, "", "", 0))
BY_DESCRIPTOR(int, fdatasync, (int descriptor), (SYS_fdatasync, descriptor),
              note(SYNC, descriptor, 0, "", "", 0))
BY_DESCRIPTOR(int, close, (int descriptor), (SYS_close, descriptor), {
    watched[descriptor] = 0;
    note(CLOSE, descriptor, 0, "", "", 0);
})

/* A call by path, which stands in `path` as seen from `at`. */
#define BY_PATH(kind, at, name, parameters, call)   \
    int name parameters {                           \
        char absolute[PATH_MAX];                    \
        lock();                                     \
        int inside = in_folder(at, path, absolute); \
        int result = (int)syscall call;             \
        if (result == 0 && inside) {                \
            note(kind, -1, 0, absolute, "", 0);     \
        }                                           \
        unlock();                                   \
        return result;                              \
    }

BY_PATH(UNLINK, AT_FDCWD, unlink, (const char* path), (SYS_unlinkat, AT_FDCWD, path, 0))
BY_PATH(flags& AT_REMOVEDIR ? RMDIR : UNLINK, at, unlinkat, (int at, const char* path, int flags),
        (SYS_unlinkat, at, path, flags))
BY_PATH(MKDIR, AT_FDCWD, mkdir, (const char* path, mode_t mode),
        (SYS_mkdirat, AT_FDCWD, path, mode))
BY_PATH(MKDIR, at, mkdirat, (int at, const char* path, mode_t mode), (SYS_mkdirat, at, path, mode))
BY_PATH(RMDIR, AT_FDCWD, rmdir, (const char* path), (SYS_unlinkat, AT_FDCWD, path, AT_REMOVEDIR))

int renameat(int from, const char* path, int to, const char* target) {
    char old_path[PATH_MAX];
    char new_path[PATH_MAX];
    lock();
    int inside = in_folder(from, path, old_path) && in_folder(to, target, new_path);
    int result = (int)syscall(SYS_renameat2, from, path, to, target, 0);
    if (result == 0 && inside) {
        note(RENAME, -1, 0, old_path, new_path, strlen(new_path));
    }
    unlock();
    return result;
}

int rename(const char* path, const char* target) {
    return renameat(AT_FDCWD, path, AT_FDCWD, target);
}
