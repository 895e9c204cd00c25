// mk_lock: exclusive flock(2) locks shared by all programs of the mail layer.
//
// By default the lock file is not the protected file itself. It is a file in /run/lock/files whose name is
// the MD5 of the protected file's name, so that programs meet on it without touching the protected file.
// Locks are advisory, belong to the open file description and end with the process. The lock directory has to
// exist; lock files are never removed. MKLock is the scoped owner; prefer it.
#pragma once

/// One attempt to lock. Allocated by mk_lock and its neighbours, released by rm_lock.
struct lock_handle {
    /// > 2: the open, locked file. 0: held elsewhere (non-blocking attempts only).
    /// < 0: the lock file could not be opened or locked.
    int fd;
    char* path; ///< Path of the lock file, malloc'd; null where there was no memory for it.
};

/// Length of the text that get_md5sum writes, without the terminating NUL.
constexpr int md5_text_length = 32;

/// Locks `name` and waits for that without limit. `hashed` non-zero: through the lock directory; zero: `name`
/// itself is the lock file. Returns a new handle, to be given to rm_lock; null only when it cannot be
/// allocated. A lock file that cannot be opened is reported through messlog2 and leaves fd negative and errno
/// set.
lock_handle* mk_lock(const char* name, int hashed);

/// As mk_lock, without waiting: a lock held elsewhere leaves fd at 0.
lock_handle* mk_nonblock_lock(const char* name, int hashed);

/// The worker of both. `open_flags` go to open(2), with O_CLOEXEC added so that no launched program keeps the
/// lock alive; `operation` goes to flock(2).
lock_handle* mk_lock_(const char* name, int open_flags, int operation, int hashed);

/// Releases the lock and the handle; the lock file stays. Returns 0, or -1 for a null handle or a failed
/// close(2), which is reported through messlog2.
int rm_lock(lock_handle* handle);

/// The same as rm_lock.
int free_lock(lock_handle* handle);

/// 1 when `handle` is not null and holds its lock, else 0.
int is_locked(const lock_handle* handle);

/// 1 for a null handle or a lock held elsewhere, else 0.
int is_already_locked(const lock_handle* handle);

/// Path of the lock file of `name` in the lock directory, malloc'd; null without memory.
char* mk_flock_path(const char* name);

/// Writes the MD5 of `prefix` followed by `text` (null counts as empty) as 32 lower-case hex digits and a NUL
/// into `buffer` of at least md5_text_length + 1 bytes. Returns 0, or -1 when libcrypto reports a failure;
/// `buffer` then holds the empty text. MD5 only serves to derive names; its strength does not matter.
int get_md5sum(const char* prefix, const char* text, char* buffer);
