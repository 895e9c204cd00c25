// FixedPaths: what the program finds at fixed places of the system, for tests that run it whole.
// scripts/sandbox has to make these places private first.
#pragma once

namespace support {

inline constexpr char postconfPath[] = "/usr/sbin/postconf";
inline constexpr char postmapPath[] = "/usr/sbin/postmap";
inline constexpr char serviceScriptPath[] = "/usr/local/maru/admin/sbin/zorvorc";

/// What postconf answers where a test says nothing else.
inline constexpr char configDirectory[] = "/etc/postfix";
inline constexpr char mainCfPath[] = "/etc/postfix/main.cf";
inline constexpr char masterCfPath[] = "/etc/postfix/master.cf";

inline constexpr char spoolDirectory[] = "/var/spool/postfix/zorvo";
inline constexpr char disabledPath[] = "/var/spool/postfix/zorvo/master.cf.disabled";
inline constexpr char tableSourcePath[] = "/var/spool/postfix/zorvo/sdd_transport_maps";
inline constexpr char tableName[] = "hash:/var/spool/postfix/zorvo/sdd_transport_maps";

inline constexpr char pidFilePath[] = "/var/spool/postfix/pid/master.pid";
inline constexpr char lockDirectory[] = "/run/lock/files";

} // namespace support
