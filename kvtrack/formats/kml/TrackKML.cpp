#include "kvtrack/formats/kml/TrackKML.h"
