// Setting a damaged file aside: it is renamed, never removed, so that what it
// still holds can be looked at or recovered by hand.
#pragma once

#include "store/format.h"

namespace vrix {

// Room for a store path with ".damaged-YYYYMMDDTHHMMSSZ-NN-journal" added.
using AsidePath = FixedText<kPathSize + 48>;

// Renames the database at `path` to "<path>.damaged-<UTC time>" (the time by
// the test hooks' clock when one is set; "-2", "-3", ... when that name is
// taken) and its "-journal", if there is one, to the same name with
// "-journal", then syncs the directory.  The new name goes to `aside`.  False
// when the database could not be renamed, or its journal could not follow it
// (the database is then put back): the file is left where it is.
bool set_aside(const char *path, AsidePath &aside);

} // namespace vrix
