// The file formats offered for import. Descriptions are gpsbabel's own, so
// users recognise them; formats gpsbabel has since dropped keep the texts of
// the versions that had them. Rows with "#suffix" run an older gpsbabel.

#include "kvtrack/devices/gpsbabel/GPSBabel.h"

#include "kvtrack/support/Log.h"

#include <array>
#include <string_view>

namespace kvtrack {

namespace {

struct FileFormat {
  std::string_view description;
  std::string_view name;
};

constexpr std::array kFileFormats = {
    FileFormat{"Alan Map500 tracklogs (.trl)", "alantrl"},
    FileFormat{"Brauniger IQ Series Barograph Download", "baroiq"},
    FileFormat{"CarteSurTable data file", "cst"},
    FileFormat{"Cetus for Palm/OS", "cetus"},
    FileFormat{"CompeGPS data files (.wpt/.trk/.rte)", "compegps"},
    FileFormat{"cotoGPS for Palm/OS", "coto"},
    FileFormat{"Data Logger iBlue747 csv", "iblue747"},
    FileFormat{"Dell Axim Navigation System (.gpb) file format", "axim_gpb"},
    FileFormat{"DeLorme GPL", "gpl"},
    FileFormat{"DeLorme Street Atlas Route", "saroute"},
    FileFormat{"Destinator TrackLogs (.dat)", "destinator_trl"},
    FileFormat{"FAI/IGC Flight Recorder Data Format", "igc"},
    FileFormat{"G7ToWin data files (.g7t)", "g7towin"},
    FileFormat{"Garmin Logbook XML", "glogbook"},
    FileFormat{"Garmin MapSource - gdb", "gdb"},
    FileFormat{"Garmin MapSource - mps", "mapsource"},
    FileFormat{"Garmin MapSource - txt (tab delimited)", "garmin_txt"},
    FileFormat{"Garmin PCX5", "pcx"},
    FileFormat{"Garmin Training Center (.tcx/.crs/.hst/.xml)", "gtrnctr"},
    FileFormat{"Garmin FIT File Format", "garmin_fit#1.4.4"},
    FileFormat{"Geogrid-Viewer ascii overlay file (.ovl)", "ggv_ovl"},
    FileFormat{"Geogrid-Viewer tracklogs (.log)", "ggv_log"},
    FileFormat{"Google Earth (Keyhole) Markup Language", "kml"},
    FileFormat{"Google Maps XML", "google"},
    FileFormat{"Google Navigator Tracklines (.trl)", "gnav_trl"},
    FileFormat{"GoPal GPS track log (.trk)", "gopal"},
    FileFormat{"Columbus/Visiontac V900 files (.csv) (old)", "v900#1.3.7"},
    FileFormat{"Columbus/Visiontac V900 files (.csv)", "v900"},
    FileFormat{"GPS TrackMaker", "gtm"},
    FileFormat{"HikeTech", "hiketech"},
    FileFormat{"Holux M-241 (MTK based) Binary File Format", "m241-bin"},
    FileFormat{"Humminbird tracks (.ht)", "humminbird_ht"},
    FileFormat{"Humminbird waypoints and routes (.hwr)", "humminbird"},
    FileFormat{"IGN Rando track files", "ignrando"},
    FileFormat{"IGO8 .trk", "igo8"},
    FileFormat{"Jelbert GeoTagger data file", "jtr"},
    FileFormat{"Kartex 5 Track File", "ktf2"},
    FileFormat{"Kompass (DAV) Track (.tk)", "kompass_tk"},
    FileFormat{"KuDaTa PsiTrex text", "psitrex"},
    FileFormat{"Lowrance USR", "lowranceusr"},
    FileFormat{"Magellan Mapsend", "mapsend"},
    FileFormat{"Magellan SD files (as for eXplorist)", "magellanx"},
    FileFormat{"Magellan SD files (as for Meridian)", "magellan"},
    FileFormat{"MagicMaps IK3D project file (.ikt)", "ik3d"},
    FileFormat{"MapAsia track file (.tr7)", "mapasia_tr7"},
    FileFormat{"MTK Logger (iBlue 747,...) Binary File Format", "mtk-bin"},
    FileFormat{"National Geographic Topo 2.x .tpo", "tpo2"},
    FileFormat{"National Geographic Topo 3.x/4.x .tpo", "tpo3"},
    FileFormat{"NaviGPS GT-11/BGT-11 Download", "navilink"},
    FileFormat{"NaviGPS GT-31/BGT-31 datalogger (.sbp)", "sbp"},
    FileFormat{"NaviGPS GT-31/BGT-31 SiRF binary logfile (.sbn)", "sbn"},
    FileFormat{"Navitel binary track (.bin)", "navitel_trk"},
    FileFormat{"NMEA 0183 sentences", "nmea"},
    FileFormat{"OziExplorer", "ozi"},
    FileFormat{"PathAway Database for Palm/OS", "pathaway"},
    FileFormat{"SkyTraq Venus based loggers Binary File Format", "skytraq-bin#1.4.4p1"},
    FileFormat{"Sportsim track files (part of zipped .ssz files)", "sportsim"},
    FileFormat{"Suunto Trek Manager (STM) .sdf files", "stmsdf"},
    FileFormat{"Suunto Trek Manager (STM) WaypointPlus files", "stmwpp"},
    FileFormat{"Swiss Map 25/50/100 (.xol)", "xol"},
    FileFormat{"TrackLogs digital mapping (.trl)", "dmtlog"},
    FileFormat{"Universal csv with field structure in first line", "unicsv"},
    FileFormat{"VidaOne GPS for Pocket PC (.gpb)", "vidaone"},
    FileFormat{"Vito Navigator II tracks", "vitosmt"},
    FileFormat{"Vito SmartMap tracks (.vtt)", "vitovtt"},
    FileFormat{"Wintec WBT-100/200 Binary File Format", "wbt-bin"},
    FileFormat{"Wintec WBT-201/G-Rays 2 Binary File Format", "wbt-tk1"},
    FileFormat{"Wintec WBT-202 Binary File Format (old)", "wintec_tes#1.3.7"},
    FileFormat{"Wintec TES file", "wintec_tes"},
    FileFormat{"Wintec WSG-2000 Binary File Format (.nal)", "wsg2000#1.4.4wsg2000"},
    FileFormat{"GPX File Format", "gpx"},
};

}  // namespace

void GPSBabel::buildFileFormats() {
  fileFormats_.reserve(kFileFormats.size());
  for (const FileFormat& format : kFileFormats) {
    const std::string name(format.name), description(format.description);
    fileFormats_.push_back(name);
    fileNameToDescription_.emplace(name, description);
    // The menu shows descriptions, so each must lead back to one format.
    if (!fileDescriptionToName_.emplace(description, name).second) {
      logf("GPSBabel: duplicate format description {}", description);
    }
  }
}

}  // namespace kvtrack
