#include "kvtrack/formats/csv/TrackCSV.h"
