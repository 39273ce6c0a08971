// The working paths of the process. Set once during start-up, before any other thread exists; read by all threads.
#pragma once

inline constexpr int PathBytes = 64;

extern char DataDir[PathBytes];  // the port's directory, ends with "/"
extern char LBName[PathBytes];
extern char LWName[PathBytes];
extern char SRWName[PathBytes];
extern char SRBName[PathBytes];
extern char RWName[PathBytes];
extern char vSRWName[PathBytes];
extern char vSRBName[PathBytes];
extern char OrgFileName[PathBytes];
extern char DataFileName[PathBytes];
extern char IndexFileName[PathBytes];
extern char TimeoutName[PathBytes];
extern char ComErrorName[PathBytes];
extern char GuiFifo[PathBytes];
extern char MekFifo[PathBytes];
extern char SlaveNoName[PathBytes];
extern char RcpDataDir[PathBytes];
