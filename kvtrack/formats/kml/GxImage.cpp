#include "kvtrack/formats/kml/GxImage.h"
