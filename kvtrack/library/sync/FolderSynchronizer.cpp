#include "kvtrack/library/sync/FolderSynchronizer.h"
