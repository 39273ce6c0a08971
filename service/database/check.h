// The start-up check of an existing register database.
// Main thread, before any other thread exists. Writes nothing when the files are sound.
#pragma once

#include "database/database_lock.h"
#include "database/survey.h"

enum class DatabaseState {
    Sound,     // nothing was wrong, or the org file has no whole header yet
    Mended,    // an interrupted operation was finished or undone; one message said what
    Unusable,  // a file cannot be read, or not be written to be mended; a message said so, a later start tries again
    Refused,   // what is there cannot be trusted; the files were set aside under other names
};

// Mends only what an interrupted operation leaves: a header count or tail, back links, an index entry or a map that
// disagree with the forward chain, a missing link to the last record, a first record that was lost, a group without an
// entry in an index that has or had some, a record cut off at the end of the file, a data file shorter than its records
// need (extended with zeros, the records marked never read).
DatabaseState CheckDatabase(MapCare care) VOQ_EXCLUDES(DatabaseLock);
