// Definitions that replace those of the C library in this test program.
// Declared here by their symbol names: the library's headers may define some of them inline.
#include "support/LibcFaults.h"

#include <dlfcn.h>
#include <sys/uio.h>

#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstring>

namespace {

struct Armed {
    int error = 0;
    int times = 0;
};

Armed armed[static_cast<int>(support::LibcCall::count)];
unsigned long writeLimit = 0; // 0: none
int writes = 0;
int memoryAllowed = 0;
int memoryFailing = 0;

Armed& of(support::LibcCall call)
{
    return armed[static_cast<int>(call)];
}

bool fails(support::LibcCall call)
{
    Armed& one = of(call);
    if (one.times == 0)
        return false;
    --one.times;
    errno = one.error;
    return true;
}

template <class Function>
Function next(const char* name)
{
    void* const symbol = ::dlsym(RTLD_NEXT, name);
    Function function = nullptr;
    std::memcpy(&function, &symbol, sizeof function);
    return function;
}

constexpr int createFlag = 0100;         // O_CREAT
constexpr int temporaryFlag = 020000000; // the bit of O_TMPFILE that is its own

} // namespace

extern "C" {

int faultingOpen(const char* path, int flags, ...) __asm__("open");
int faultingOpen(const char* path, int flags, ...)
{
    unsigned mode = 0;
    if ((flags & (createFlag | temporaryFlag)) != 0) {
        va_list args;
        va_start(args, flags);
        mode = va_arg(args, unsigned);
        va_end(args);
    }
    if (fails(support::LibcCall::Open))
        return -1;
    static const auto real = next<int (*)(const char*, int, ...)>("open");
    return real(path, flags, mode);
}

int faultingClose(int fd) __asm__("close");
int faultingClose(int fd)
{
    static const auto real = next<int (*)(int)>("close");
    if (!fails(support::LibcCall::Close))
        return real(fd);
    const int error = errno;
    if (error != EINTR)
        real(fd);
    errno = error;
    return -1;
}

int faultingFlock(int fd, int operation) __asm__("flock");
int faultingFlock(int fd, int operation)
{
    if (fails(support::LibcCall::Flock))
        return -1;
    static const auto real = next<int (*)(int, int)>("flock");
    return real(fd, operation);
}

int faultingFsync(int fd) __asm__("fsync");
int faultingFsync(int fd)
{
    if (fails(support::LibcCall::Fsync))
        return -1;
    static const auto real = next<int (*)(int)>("fsync");
    return real(fd);
}

int faultingMkstemp(char* pattern) __asm__("mkstemp");
int faultingMkstemp(char* pattern)
{
    if (fails(support::LibcCall::Mkstemp)) {
        std::memcpy(pattern + std::strlen(pattern) - 6, "spoilt", 6);
        return -1;
    }
    static const auto real = next<int (*)(char*)>("mkstemp");
    return real(pattern);
}

int faultingMkostemp(char* pattern, int flags) __asm__("mkostemp");
int faultingMkostemp(char* pattern, int flags)
{
    if (fails(support::LibcCall::Mkstemp)) {
        std::memcpy(pattern + std::strlen(pattern) - 6, "spoilt", 6);
        return -1;
    }
    static const auto real = next<int (*)(char*, int)>("mkostemp");
    return real(pattern, flags);
}

long faultingRead(int fd, void* buffer, unsigned long size) __asm__("read");
long faultingRead(int fd, void* buffer, unsigned long size)
{
    if (fails(support::LibcCall::Read))
        return -1;
    static const auto real = next<long (*)(int, void*, unsigned long)>("read");
    return real(fd, buffer, size);
}

long faultingWrite(int fd, const void* bytes, unsigned long size) __asm__("write");
long faultingWrite(int fd, const void* bytes, unsigned long size)
{
    ++writes;
    if (fails(support::LibcCall::Write))
        return -1;
    static const auto real = next<long (*)(int, const void*, unsigned long)>("write");
    return real(fd, bytes, writeLimit != 0 && size > writeLimit ? writeLimit : size);
}

long faultingWritev(int fd, const iovec* pieces, int count) __asm__("writev");
long faultingWritev(int fd, const iovec* pieces, int count)
{
    if (fails(support::LibcCall::Writev))
        return -1;
    static const auto real = next<long (*)(int, const iovec*, int)>("writev");
    if (writeLimit == 0)
        return real(fd, pieces, count);
    iovec first = pieces[0];
    for (int i = 1; first.iov_len == 0 && i < count; ++i)
        first = pieces[i];
    if (first.iov_len > writeLimit)
        first.iov_len = writeLimit;
    return real(fd, &first, 1);
}

#ifndef __SANITIZE_ADDRESS__

void* __libc_malloc(size_t size);
void* __libc_realloc(void* block, size_t size);

static bool memoryFails()
{
    if (memoryFailing == 0)
        return false;
    if (memoryAllowed > 0) {
        --memoryAllowed;
        return false;
    }
    --memoryFailing;
    errno = ENOMEM;
    return true;
}

void* faultingMalloc(size_t size) __asm__("malloc");
void* faultingMalloc(size_t size)
{
    return memoryFails() ? nullptr : __libc_malloc(size);
}

void* faultingRealloc(void* block, size_t size) __asm__("realloc");
void* faultingRealloc(void* block, size_t size)
{
    return memoryFails() ? nullptr : __libc_realloc(block, size);
}

#endif

} // extern "C"

namespace support {

LibcFault::LibcFault(LibcCall call, int error, int times) : call_(call)
{
    of(call).error = error;
    of(call).times = times;
}

LibcFault::~LibcFault()
{
    of(call_).times = 0;
}

int LibcFault::left() const
{
    return of(call_).times;
}

ShortWrites::ShortWrites(unsigned long limit)
{
    writeLimit = limit;
}

ShortWrites::~ShortWrites()
{
    writeLimit = 0;
}

int writesMade()
{
    return writes;
}

bool MemoryFault::available()
{
#ifdef __SANITIZE_ADDRESS__
    return false;
#else
    return true;
#endif
}

MemoryFault::MemoryFault(int allowed, int failing)
{
    memoryAllowed = allowed;
    memoryFailing = failing;
}

MemoryFault::~MemoryFault()
{
    memoryFailing = 0;
}

int MemoryFault::left() const
{
    return memoryFailing;
}

} // namespace support
