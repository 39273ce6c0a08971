// Storage of the register database lock.
#include "database/database_lock.h"

Mutex DatabaseLock;
