#include "kvtrack/support/UnitConverter.h"

#include <gtest/gtest.h>

namespace kvtrack {
namespace {

TEST(UnitConverter, ConvertsMetresIntoDisplayUnits) {
  EXPECT_DOUBLE_EQ(UnitConverter::metersToMiles(42195.0), 26.218757456454306);
  EXPECT_DOUBLE_EQ(UnitConverter::metersToNauticalMiles(10000.0), 5.399568034557236);
  EXPECT_DOUBLE_EQ(UnitConverter::metersToFeet(8848.86), 29031.69291338583);
  EXPECT_DOUBLE_EQ(UnitConverter::metersToFeet(-30.48), -100.0);
}

}  // namespace
}  // namespace kvtrack
