#include "kvtrack/library/sync/TrackICloudMetadata.h"
