#include "kvtrack/model/NamedObject.h"
// NamedObject is header-only; this unit anchors it in the model library.
