// Storage of the working paths.
#include "state/paths.h"

char DataDir[PathBytes];
char LBName[PathBytes];
char LWName[PathBytes];
char SRWName[PathBytes];
char SRBName[PathBytes];
char RWName[PathBytes];
char vSRWName[PathBytes];
char vSRBName[PathBytes];
char OrgFileName[PathBytes];
char DataFileName[PathBytes];
char IndexFileName[PathBytes];
char TimeoutName[PathBytes];
char ComErrorName[PathBytes];
char GuiFifo[PathBytes];
char MekFifo[PathBytes];
char SlaveNoName[PathBytes];
char RcpDataDir[PathBytes];
