#include "kvtrack/support/Localization.h"
