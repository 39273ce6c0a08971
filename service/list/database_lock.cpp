// Storage of the register database lock.
#include "list/database_lock.h"

Mutex DatabaseLock;
