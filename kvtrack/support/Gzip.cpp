#include "kvtrack/support/Gzip.h"
