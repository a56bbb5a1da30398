#include "records/record_name.h"

#include <gtest/gtest.h>

namespace wdc {
namespace {

TEST(CreateEncodedPath, AbsentFieldsLeaveSeparatorsSideBySide) {
  EXPECT_EQ(WebDAVFileMetaData::createEncodedPathWithOpType(std::nullopt, std::nullopt,
                                                            std::nullopt, std::nullopt,
                                                            std::nullopt),
            "o_u_k__p__i__d_");
  EXPECT_EQ(WebDAVFileMetaData::createEncodedPathWithOpType("a", "C", "P", "X", std::string("txt")),
            "o_a_k_C_p_P_i_X_d_.txt");
  // An empty extension still adds the dot: only an absent one leaves it off.
  EXPECT_EQ(WebDAVFileMetaData::createEncodedPathWithOpType("a", "", "", "", std::string("")),
            "o_a_k__p__i__d_.");
}

struct NameCase {
  const char* name;
  bool isRecord;
  const char* op = "";
  const char* container = "";
  const char* parent = "";
  const char* uid = "";
  const char* device = nullptr;  // nullptr: absent
  const char* extension = "";
};

void PrintTo(const NameCase& c, std::ostream* os) { *os << c.name; }

class ParseRecordName : public testing::TestWithParam<NameCase> {};

TEST_P(ParseRecordName, ReadsFieldsByPosition) {
  const NameCase& c = GetParam();
  auto fields = parseRecordName(c.name);
  ASSERT_EQ(fields.has_value(), c.isRecord) << c.name;
  if (!fields) return;
  EXPECT_EQ(fields->opType, c.op);
  EXPECT_EQ(fields->containerUID, c.container);
  EXPECT_EQ(fields->parentUID, c.parent);
  EXPECT_EQ(fields->uid, c.uid);
  EXPECT_EQ(fields->deviceUDID.has_value(), c.device != nullptr);
  if (c.device) {
    EXPECT_EQ(*fields->deviceUDID, c.device);
  }
  EXPECT_EQ(fields->extension, c.extension);
}

INSTANTIATE_TEST_SUITE_P(
    Names, ParseRecordName,
    testing::Values(
        NameCase{"o_a_k_C_p_P_i.txt", false, "", "", "", "", nullptr, ""},
        NameCase{"o_a_k_C_p_P_i_X.txt", true, "a", "C", "P", "X", nullptr, "txt"},
        NameCase{"o_a_k_C_p_P_i_X_d.txt", true, "a", "C", "P", "X", nullptr, "txt"},
        NameCase{"o_u_k__p__i__d_", true, "u", "", "", "", "", ""},
        NameCase{"o_1_k_C1_p_P1_i_U1_d_DEV.tod", true, "1", "C1", "P1", "U1", "DEV", "tod"},
        // Markers are never compared: any text in their places is accepted.
        NameCase{"x_2_y_C_z_P_w_U_v_D.cal", true, "2", "C", "P", "U", "D", "cal"},
        // An identifier with an underscore shifts every later field.
        NameCase{"o_a_k_C_x_p_P_i_U_d_D.loc", true, "a", "C", "p", "i", "d", "loc"},
        // Only the last dot separates the extension.
        NameCase{"o_a_k_C_p_P_i_U.1_d_D.col", true, "a", "C", "P", "U.1", "D", "col"},
        NameCase{"notarecord.tod", false, "", "", "", "", nullptr, ""}));

TEST(ParseRecordName, RoundTripsWhatTheEncoderWrites) {
  std::string name =
      WebDAVFileMetaData::createEncodedPathWithOpType("3", "K9", "P9", "I9", std::string("cag"));
  auto fields = parseRecordName(name);
  ASSERT_TRUE(fields);
  WebDAVFileMetaData record;
  applyRecordName(*fields, record);
  EXPECT_EQ(record.OpType, "3");
  EXPECT_EQ(record.ContainerUID, "K9");
  EXPECT_EQ(record.ParentUID, "P9");
  EXPECT_EQ(record.UID, "I9");
  EXPECT_EQ(record.DeviceUDID, "");
  EXPECT_EQ(record.Extension, "cag");
}

TEST(PathExtension, FollowsTheLastDotOfTheLastComponent) {
  EXPECT_EQ(pathExtension("a.tar.gz"), "gz");
  EXPECT_EQ(pathExtension("dir.d/file"), "");
  EXPECT_EQ(pathExtension(".hidden"), "");
  EXPECT_EQ(deletingPathExtension("a.tar.gz"), "a.tar");
  EXPECT_EQ(deletingPathExtension("plain"), "plain");
}

}  // namespace
}  // namespace wdc
