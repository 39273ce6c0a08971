// The working paths of the process. Set once during start-up, before any other thread exists; read by all threads.
#pragma once

inline constexpr int PathBytes = 64;

inline char DataDir[PathBytes];  // the port's directory, ends with "/"
inline char LBName[PathBytes];
inline char LWName[PathBytes];
inline char SRWName[PathBytes];
inline char SRBName[PathBytes];
inline char RWName[PathBytes];
inline char vSRWName[PathBytes];
inline char vSRBName[PathBytes];
inline char OrgFileName[PathBytes];
inline char DataFileName[PathBytes];
inline char IndexFileName[PathBytes];
inline char TimeoutName[PathBytes];
inline char ComErrorName[PathBytes];
inline char GuiFifo[PathBytes];
inline char MekFifo[PathBytes];
inline char SlaveNoName[PathBytes];
inline char PulsesName[PathBytes];
inline char StatsName[PathBytes];
inline char RcpDataDir[PathBytes];
