// LockFiles: the lock files of names, computed without the product.
#pragma once

#include "support/FixedPaths.h"
#include "support/HeldLock.h"

#include <openssl/evp.h>

#include <stdexcept>
#include <string>
#include <string_view>

namespace support {

/// The name of a lock file: the MD5 of what it protects, in lower-case hexadecimal.
inline std::string lockNameOf(std::string_view name)
{
    unsigned char digest[EVP_MAX_MD_SIZE];
    size_t size = 0;
    if (EVP_Q_digest(nullptr, "MD5", nullptr, name.data(), name.size(), digest, &size) != 1)
        throw std::runtime_error("no MD5");
    std::string text;
    for (size_t i = 0; i < size; ++i) {
        text += "0123456789abcdef"[digest[i] >> 4];
        text += "0123456789abcdef"[digest[i] & 15];
    }
    return text;
}

/// Its path.
inline std::string lockFileOf(std::string_view name)
{
    return std::string(lockDirectory) + '/' + lockNameOf(name);
}

/// The lock that a run holds from its first change to its end.
inline const std::string runLock = lockNameOf(spoolDirectory);

// Those that it holds for one change each.
inline const std::string mainCfLock = lockNameOf(mainCfPath);
inline const std::string tableLock = lockNameOf(tableSourcePath);
inline const std::string masterCfLock = lockNameOf(masterCfPath);
inline const std::string disabledLock = lockNameOf(disabledPath);

} // namespace support
