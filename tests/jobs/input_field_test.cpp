// name=value parameters of a request.
#include "jobs/InputField.h"

#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <utility>

namespace {

TEST(InputField, StartsWithoutTextsAndChoices) {
    const InputField field;
    EXPECT_EQ(field.name, nullptr);
    EXPECT_EQ(field.currValue, nullptr);
    EXPECT_EQ(field.defaultValue, nullptr);
    EXPECT_TRUE(field.choices.empty());
}

TEST(InputField, SplitsAtTheFirstEqualsSign) {
    const InputField field("Filename=a=b");
    EXPECT_STREQ(field.name, "Filename");
    EXPECT_STREQ(field.currValue, "a=b");
    EXPECT_EQ(field.defaultValue, nullptr);
}

TEST(InputField, TakesAnEmptyValueAndAnEmptyName) {
    EXPECT_STREQ(InputField("Filename=").currValue, "");
    EXPECT_STREQ(InputField("=x").name, "");
    EXPECT_STREQ(InputField("=x").currValue, "x");
}

TEST(InputField, WithoutAnEqualsSignThereIsNeitherNameNorValue) {
    for (const char* text : {"Filename", "", static_cast<const char*>(nullptr)}) {
        const InputField field(text);
        EXPECT_EQ(field.name, nullptr);
        EXPECT_EQ(field.currValue, nullptr);
    }
}

TEST(InputField, SettingATextReplacesTheFormerCopy) {
    InputField field("a=b");
    char text[] = "new";
    field.SetName(text);
    field.SetCurrValue(text);
    field.SetDefaultValue("old");
    field.SetDefaultValue(text);
    text[0] = 'X';
    EXPECT_STREQ(field.name, "new");
    EXPECT_STREQ(field.currValue, "new");
    EXPECT_STREQ(field.defaultValue, "new");
    field.SetName(field.name);
    EXPECT_STREQ(field.name, "new") << "a text may be set to itself";
}

TEST(InputField, ChoicesKeepTheirOrder) {
    InputField field;
    field.AddChoice("one");
    field.AddChoice("two");
    ASSERT_EQ(field.choices.size(), 2U);
    EXPECT_STREQ(field.choices[0], "one");
    EXPECT_STREQ(field.choices[1], "two");
}

TEST(InputField, ACopyHasTheTextsButNoChoices) {
    InputField source("a=b");
    source.SetDefaultValue("c");
    source.AddChoice("d");
    const InputField copy(source);
    EXPECT_STREQ(copy.name, "a");
    EXPECT_STREQ(copy.currValue, "b");
    EXPECT_STREQ(copy.defaultValue, "c");
    EXPECT_NE(copy.name, source.name);
    EXPECT_TRUE(copy.choices.empty());
    InputField assigned("x=y");
    assigned.AddChoice("z");
    assigned = source;
    EXPECT_STREQ(assigned.name, "a");
    EXPECT_TRUE(assigned.choices.empty());
    const InputField empty{InputField()};
    EXPECT_EQ(empty.name, nullptr);
}

TEST(InputField, AMovedFieldKeepsItsChoices) {
    InputField source("a=b");
    source.AddChoice("d");
    const InputField moved(std::move(source));
    EXPECT_STREQ(moved.name, "a");
    EXPECT_EQ(moved.choices.size(), 1U);
}

// Number and name of every known field.
struct Known {
    int number;
    const char* name;
};
constexpr Known KNOWN[] = {
    {0, "Filename"},        {1, "SrcFilename"},       {2, "MarkInTime"},
    {3, "MarkOutTime"},     {4, "StartTime"},         {5, "EndTime"},
    {6, "Duration"},        {7, "NumEncoders"},       {8, "EncoderIp"},
    {9, "EncoderProfile"},  {10, "EncoderVitcInput"}, {11, "DecoderIp"},
    {12, "DecoderProfile"}, {13, "DecoderIntfIp"},    {14, "Control_Ip_Address"},
    {15, "Subtype"},        {16, "VTR_Com_Port"},     {17, "VTR_UseInternalCue"},
};

TEST(InputField, EveryKnownNameHasItsNumber) {
    static_assert(std::size(KNOWN) == std::size(InputField::FieldName));
    for (const Known& known : KNOWN) {
        EXPECT_STREQ(InputField::FieldName[known.number], known.name);
        EXPECT_EQ(InputField((std::string(known.name) + "=x").c_str()).getFieldName(), known.number);
    }
}

TEST(InputField, AKnownNameIsAPrefix) {
    EXPECT_EQ(InputField("FilenameX=1").getFieldName(), 0);
    EXPECT_EQ(InputField("EncoderIp0=1").getFieldName(), 8);
    EXPECT_EQ(InputField("EncoderIp1=1").getFieldName(), 8);
    EXPECT_EQ(InputField("SrcFilename=1").getFieldName(), 1);
}

TEST(InputField, OtherNamesHaveNoNumber) {
    EXPECT_EQ(InputField("filename=1").getFieldName(), -1);
    EXPECT_EQ(InputField("Filenam=1").getFieldName(), -1);
    EXPECT_EQ(InputField("=1").getFieldName(), -1);
    EXPECT_EQ(InputField().getFieldName(), -1);
}

TEST(InputField, YesAndNoAreReadInAnyCaseAndElseTheDefaultHolds) {
    EXPECT_TRUE(InputField("a=TRUE").getCurrValue_bool(false));
    EXPECT_TRUE(InputField("a=True").getCurrValue_bool(false));
    EXPECT_FALSE(InputField("a=false").getCurrValue_bool(true));
    EXPECT_FALSE(InputField("a=FALSE").getCurrValue_bool(true));
    for (const bool dflt : {true, false}) {
        EXPECT_EQ(InputField("a=yes").getCurrValue_bool(dflt), dflt);
        EXPECT_EQ(InputField("a=").getCurrValue_bool(dflt), dflt);
        EXPECT_EQ(InputField("a=TRUE ").getCurrValue_bool(dflt), dflt);
        EXPECT_EQ(InputField().getCurrValue_bool(dflt), dflt);
    }
}

} // namespace
