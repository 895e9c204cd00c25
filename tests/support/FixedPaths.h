// FixedPaths: the paths at which the program finds things. scripts/sandbox has to make them private before a
// test changes them.
#pragma once

#include <string>

namespace support {

inline constexpr char postconfPath[] = "/usr/sbin/postconf";
inline constexpr char postmapPath[] = "/usr/sbin/postmap";
inline constexpr char serviceScriptPath[] = "/usr/local/maru/admin/sbin/zorvorc";
inline constexpr char registerServicePath[] = "/usr/local/maru/admin/sbin/register_service";

/// What postconf answers where a test says nothing else.
inline constexpr char configDirectory[] = "/etc/postfix";
inline constexpr char mainCfPath[] = "/etc/postfix/main.cf";
inline constexpr char masterCfPath[] = "/etc/postfix/master.cf";

inline constexpr char queueDirectory[] = "/var/spool/postfix";
inline constexpr char spoolDirectory[] = "/var/spool/postfix/zorvo";
inline constexpr char disabledPath[] = "/var/spool/postfix/zorvo/master.cf.disabled";
inline constexpr char tableSourcePath[] = "/var/spool/postfix/zorvo/sdd_transport_maps";

/// The type of the program's lookup table (postmap(1)), and of the tables that tests make.
inline const std::string tableType = "hash:";
inline const std::string tableName = tableType + tableSourcePath;

inline constexpr char pidFilePath[] = "/var/spool/postfix/pid/master.pid";
inline constexpr char lockDirectory[] = "/run/lock/files";

/// Only inside scripts/sandbox. Tests may write there.
inline constexpr char sandboxDirectory[] = "/run/sandbox";

} // namespace support
