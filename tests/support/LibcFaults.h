// LibcFaults: makes a call of the C library fail on purpose for a scope.
//
// The test program defines the functions below itself and passes them on (unit/common/LibcFaults.cpp), so the
// code under test runs unchanged. Calls from inside libc are not affected, except for memory.
#pragma once

namespace support {

enum class LibcCall { Open, Close, Flock, Mkstemp, Fsync, Read, Write, Writev, count };

/// The next `times` calls fail with `error`, doing nothing; later ones work again. Mkstemp stands for
/// mkostemp(3) too, and spoils the template before it fails, as the C library may. A failing close(2) does
/// nothing with EINTR, and closes for any other error.
class LibcFault {
public:
    LibcFault(LibcCall call, int error, int times);
    LibcFault(const LibcFault&) = delete;
    LibcFault& operator=(const LibcFault&) = delete;
    ~LibcFault();

    /// How many of the failures have not been met yet.
    int left() const;

private:
    LibcCall call_;
};

/// While it lives, write(2) writes at most `limit` bytes, and writev(2) at most that of its first piece.
class ShortWrites {
public:
    explicit ShortWrites(unsigned long limit);
    ShortWrites(const ShortWrites&) = delete;
    ShortWrites& operator=(const ShortWrites&) = delete;
    ~ShortWrites();
};

/// How many calls of write(2) came to this test program's own definition so far.
int writesMade();

/// While it lives, malloc(3) and realloc(3) succeed `allowed` times and then fail with ENOMEM `failing`
/// times.
class MemoryFault {
public:
    /// False under a sanitizer that replaces malloc(3): nothing fails there.
    static bool available();

    explicit MemoryFault(int allowed, int failing = 1);
    MemoryFault(const MemoryFault&) = delete;
    MemoryFault& operator=(const MemoryFault&) = delete;
    ~MemoryFault();

    /// How many of the failures have not been met yet.
    int left() const;
};

} // namespace support
