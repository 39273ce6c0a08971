// Places on the box that are the same for every port.
#pragma once

inline constexpr char TarnDir[] = "/home/tarn";  // exists on a gateway box, not on a panel
inline constexpr char TarnPortIndex[] = "/home/tarn/PortIndex";
inline constexpr char TarnSerialConfig[] = "/home/tarn/com_%d.con";
inline constexpr char TarnTcpConfig[] = "/home/tarn/tcp_%d.con";
inline constexpr char DownloadRoot[] = "/home/Bin/map";
inline constexpr char ChangeFlags[] = "/tmp/srb0.dat";
inline constexpr char MiscDevice[] = "/dev/qumisc";
