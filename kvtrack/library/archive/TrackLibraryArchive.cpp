#include "kvtrack/library/archive/TrackLibraryArchive.h"
