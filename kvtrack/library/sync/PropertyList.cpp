#include "kvtrack/library/sync/PropertyList.h"
