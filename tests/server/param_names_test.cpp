// Every row of the dictionary, pinned: a wrong name silently drops a billing value.
#include <sstream>

#include "server/param_names.h"
#include "server_test_util.h"

namespace {

// kind -> "id name, id name, ..." exactly as the server side names them.
const std::map<int, std::string> kExpected = {
    {0, "0 Q1, 1 Q2, 2 Q3, 3 M1, 4 M2, 5 M3, 6 T1, 7 T2, 8 T3, 9 P1, 10 P2, 11 P3, 12 dP, 13 Ta, 14 ER, 15 EG, "
        "55 F1C, 56 F2C"},
    {1, "17 IE1, 18 IT1, 19 IQ1, 20 IQ2, 21 IQ3, 22 IM1, 23 IM2, 24 IM3, 55 F1I, 56 F2I"},
    {2, "17 A29, 18 A32, 19 A34, 20 A36, 21 A38, 22 A40, 23 A42, 24 A44, 25 A65, 26 A66, 27 A67, 28 A68, 29 A69"},
    {3, "17 A1, 18 A4, 19 A6, 20 A8, 21 A10, 22 A12, 23 A14, 24 A16, 25 A60, 26 A61, 27 A62, 28 A63, 29 A64"},
    {4, "6 A20, 7 A21, 8 A22, 9 A17, 10 A18, 11 A19, 13 A80, 14 A28, 15 _A57, 16 F57, 17 A2, 18 A3, 19 A5, 20 A7, "
        "21 A9, 22 A11, 23 A13, 24 A15, 25 A23, 26 A24, 27 A25, 28 A26, 29 A27, 55 F1H, 56 F2H"},
    {5, "6 A48, 7 A49, 8 A50, 9 A45, 10 A46, 11 A47, 13 A81, 14 A56, 17 A30, 18 A31, 19 A33, 20 A35, 21 A37, "
        "22 A39, 23 A41, 24 A43, 25 A51, 26 A52, 27 A53, 28 A54, 29 A55, 55 F1D, 56 F2D"},
    {7, "8 tx, 31 MeterManufacturer, 32 MeterModel, 33 Firmware, 34 SerialNumber, 35 PrDate, 36 PovDate, "
        "37 NextPovDate, 38 TSType, 39 S, 40 SA1, 41 SA2, 42 SA3, 43 LastOff, 44 LastOn, 45 MDateTime, "
        "46 Connected, 47 SC"},
    {8, "17 A70, 18 A71, 19 A72, 20 A73, 21 A74, 22 A75, 23 A76, 24 A77"},
    {9, "48 DN1, 49 DN2, 50 DN3, 51 M1max, 52 M2max, 53 M1min, 54 M2min"},
};

ParamNamesMap ExpectedTable() {
  ParamNamesMap table;
  for (const auto& kindRows : kExpected) {
    std::istringstream in(kindRows.second);
    std::string row;
    while (std::getline(in, row, ',')) {
      std::istringstream fields(row);
      int id;
      std::string name;
      fields >> id >> name;
      EXPECT_TRUE(table.emplace(ParamKey(kindRows.first, id), name).second) << "duplicate row " << row;
    }
  }
  return table;
}

TEST(ParamNamesTest, HoldsExactlyTheExpectedRows) {
  ParamNamesMap expected = ExpectedTable();
  ASSERT_EQ(expected.size(), 135u);
  EXPECT_EQ(ParamNames.size(), 135u);
  for (const auto& row : expected) {
    auto it = ParamNames.find(row.first);
    ASSERT_NE(it, ParamNames.end()) << "kind " << (row.first >> 16) << " id " << (row.first & 0xFFFF);
    EXPECT_EQ(it->second, row.second) << "kind " << (row.first >> 16) << " id " << (row.first & 0xFFFF);
  }
  EXPECT_EQ(ParamNames, expected);
}

TEST(ParamNamesTest, LookupByKindAndId) {
  EXPECT_EQ(ParamKey(7, 46), 0x7002Eu);
  ASSERT_NE(FindParamName(7, 46), nullptr);
  EXPECT_EQ(*FindParamName(7, 46), "Connected");
  EXPECT_EQ(*FindParamName(7, 8), "tx");
  EXPECT_EQ(*FindParamName(0, 8), "T3");
  EXPECT_EQ(*FindParamName(4, 15), "_A57");
  EXPECT_EQ(FindParamName(0, 16), nullptr);
  EXPECT_EQ(FindParamName(7, 30), nullptr);
  for (int id = 0; id < 100; ++id) EXPECT_EQ(FindParamName(6, id), nullptr) << id;
  // Out-of-range halves must not alias a real key (0x10011 would be IE1, kind 1 id 17).
  EXPECT_EQ(FindParamName(0, 0x10011), nullptr);
  EXPECT_EQ(FindParamName(-1, 0), nullptr);
  EXPECT_EQ(FindParamName(7, -1), nullptr);
}

}  // namespace
