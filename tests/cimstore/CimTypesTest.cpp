// Coercion to CIM types and the VARIANT form of values.
#include "cimstore/CimTypes.h"

#include <gtest/gtest.h>

#include <cmath>

using namespace cimstore;

namespace {

struct CoerceRow {
    const char* szName;
    CimValue input;
    CIMTYPE type;
    HRESULT hr;
    CimValue expected;
};

TEST(cimstoreTypes, CoerceFollowsPutRules)
{
    const CoerceRow rows[] = {
        {"decimal string to uint32", CimValue(L"42"), CIM_UINT32, S_OK, CimValue(uint64_t{42})},
        {"padded string to sint32", CimValue(L" -17 "), CIM_SINT32, S_OK, CimValue(int64_t{-17})},
        {"negative string to sint8", CimValue(L"-128"), CIM_SINT8, S_OK, CimValue(int64_t{-128})},
        {"sint8 below range", CimValue(L"-129"), CIM_SINT8, Hr(WBEM_E_TYPE_MISMATCH), CimValue()},
        {"uint8 above range", CimValue(256), CIM_UINT8, Hr(WBEM_E_TYPE_MISMATCH), CimValue()},
        {"negative to uint32", CimValue(-1), CIM_UINT32, Hr(WBEM_E_TYPE_MISMATCH), CimValue()},
        {"uint32 maximum", CimValue(uint64_t{4294967295u}), CIM_UINT32, S_OK, CimValue(uint64_t{4294967295u})},
        {"uint32 above range", CimValue(uint64_t{4294967296u}), CIM_UINT32, Hr(WBEM_E_TYPE_MISMATCH), CimValue()},
        {"uint64 maximum as text", CimValue(L"18446744073709551615"), CIM_UINT64, S_OK,
         CimValue(uint64_t{18446744073709551615u})},
        {"uint64 overflow as text", CimValue(L"18446744073709551616"), CIM_UINT64, Hr(WBEM_E_TYPE_MISMATCH), CimValue()},
        {"sint64 minimum", CimValue(L"-9223372036854775808"), CIM_SINT64, S_OK, CimValue(INT64_MIN)},
        {"sint64 below range", CimValue(L"-9223372036854775809"), CIM_SINT64, Hr(WBEM_E_TYPE_MISMATCH), CimValue()},
        {"letters to sint32", CimValue(L"12abc"), CIM_SINT32, Hr(WBEM_E_TYPE_MISMATCH), CimValue()},
        {"empty text to uint16", CimValue(L""), CIM_UINT16, Hr(WBEM_E_TYPE_MISMATCH), CimValue()},
        {"real rounds half to even (down)", CimValue(2.5), CIM_SINT32, S_OK, CimValue(int64_t{2})},
        {"real rounds half to even (up)", CimValue(3.5), CIM_SINT32, S_OK, CimValue(int64_t{4})},
        {"TRUE is -1 for integers", CimValue(true), CIM_SINT16, S_OK, CimValue(int64_t{-1})},
        {"TRUE does not fit uint8", CimValue(true), CIM_UINT8, Hr(WBEM_E_TYPE_MISMATCH), CimValue()},
        {"integer to string", CimValue(-7), CIM_STRING, S_OK, CimValue(L"-7")},
        {"unsigned to string", CimValue(uint64_t{18446744073709551615u}), CIM_STRING, S_OK,
         CimValue(L"18446744073709551615")},
        {"boolean to string", CimValue(true), CIM_STRING, S_OK, CimValue(L"True")},
        {"real to string", CimValue(0.5), CIM_STRING, S_OK, CimValue(L"0.5")},
        {"text to real64", CimValue(L"1.5e3"), CIM_REAL64, S_OK, CimValue(1500.0)},
        {"real32 overflow", CimValue(1e39), CIM_REAL32, Hr(WBEM_E_TYPE_MISMATCH), CimValue()},
        {"real32 rounds to single", CimValue(0.1), CIM_REAL32, S_OK, CimValue(static_cast<double>(0.1f))},
        {"text TRUE to boolean", CimValue(L"true"), CIM_BOOLEAN, S_OK, CimValue(true)},
        {"text 0 to boolean", CimValue(L"0"), CIM_BOOLEAN, S_OK, CimValue(false)},
        {"nonsense to boolean", CimValue(L"maybe"), CIM_BOOLEAN, Hr(WBEM_E_TYPE_MISMATCH), CimValue()},
        {"integer to boolean", CimValue(5), CIM_BOOLEAN, S_OK, CimValue(true)},
        {"valid timestamp", CimValue(L"20240131120000.000000+060"), CIM_DATETIME, S_OK,
         CimValue(L"20240131120000.000000+060")},
        {"valid interval", CimValue(L"00000001020304.000000:000"), CIM_DATETIME, S_OK,
         CimValue(L"00000001020304.000000:000")},
        {"bad datetime", CimValue(L"yesterday"), CIM_DATETIME, Hr(WBEM_E_TYPE_MISMATCH), CimValue()},
        {"number to reference", CimValue(5), CIM_REFERENCE, Hr(WBEM_E_TYPE_MISMATCH), CimValue()},
        {"letter to char16", CimValue(L"A"), CIM_CHAR16, S_OK, CimValue(int64_t{65})},
        {"NULL fits anything", CimValue(), CIM_UINT8, S_OK, CimValue()},
        {"array elements", CimValue::Array({CimScalar(std::wstring(L"1")), CimScalar(int64_t{2})}),
         CIM_UINT16 | CIM_FLAG_ARRAY, S_OK, CimValue::Array({CimScalar(uint64_t{1}), CimScalar(uint64_t{2})})},
        {"array element out of range", CimValue::Array({CimScalar(int64_t{1}), CimScalar(int64_t{70000})}),
         CIM_UINT16 | CIM_FLAG_ARRAY, Hr(WBEM_E_TYPE_MISMATCH), CimValue()},
        {"scalar into array", CimValue(1), CIM_UINT16 | CIM_FLAG_ARRAY, Hr(WBEM_E_TYPE_MISMATCH), CimValue()},
        {"array into scalar", CimValue::Array({}), CIM_UINT16, Hr(WBEM_E_TYPE_MISMATCH), CimValue()},
        {"embedded object", CimValue(1), CIM_OBJECT, Hr(WBEM_E_TYPE_MISMATCH), CimValue()},
    };
    for (const CoerceRow& row : rows) {
        CimValue out(L"untouched");
        const HRESULT hr = Coerce(row.input, row.type, out);
        EXPECT_EQ(hr, row.hr) << row.szName << std::hex << " hr=0x" << hr;
        if (SUCCEEDED(row.hr) && SUCCEEDED(hr)) {
            EXPECT_TRUE(out == row.expected) << row.szName;
        }
    }
}

struct VariantRow {
    CIMTYPE type;
    CimValue value;
    VARTYPE vt;
};

TEST(cimstoreTypes, VariantFormsMatchWmiAndRoundTrip)
{
    const VariantRow rows[] = {
        {CIM_SINT8, CimValue(int64_t{-5}), VT_I2},
        {CIM_UINT8, CimValue(uint64_t{200}), VT_UI1},
        {CIM_SINT16, CimValue(int64_t{-300}), VT_I2},
        {CIM_UINT16, CimValue(uint64_t{60000}), VT_I4},
        {CIM_SINT32, CimValue(int64_t{-70000}), VT_I4},
        {CIM_UINT32, CimValue(uint64_t{4000000000u}), VT_I4},
        {CIM_SINT64, CimValue(int64_t{-5000000000}), VT_BSTR},
        {CIM_UINT64, CimValue(uint64_t{18446744073709551615u}), VT_BSTR},
        {CIM_REAL32, CimValue(static_cast<double>(1.25f)), VT_R4},
        {CIM_REAL64, CimValue(-2.5e-7), VT_R8},
        {CIM_BOOLEAN, CimValue(true), VT_BOOL},
        {CIM_STRING, CimValue(L"text"), VT_BSTR},
        {CIM_DATETIME, CimValue(L"20240131120000.000000+060"), VT_BSTR},
        {CIM_REFERENCE, CimValue(L"A.B=1"), VT_BSTR},
        {CIM_CHAR16, CimValue(int64_t{0xFFFF}), VT_I2},
        {CIM_STRING, CimValue(), VT_NULL},
        {CIM_UINT32 | CIM_FLAG_ARRAY, CimValue::Array({CimScalar(uint64_t{1}), CimScalar(uint64_t{4294967295u})}),
         VT_ARRAY | VT_I4},
        {CIM_STRING | CIM_FLAG_ARRAY, CimValue::Array({CimScalar(std::wstring(L"a")), CimScalar(std::wstring(L""))}),
         VT_ARRAY | VT_BSTR},
        {CIM_BOOLEAN | CIM_FLAG_ARRAY, CimValue::Array({}), VT_ARRAY | VT_BOOL},
    };
    for (const VariantRow& row : rows) {
        CCVariant v;
        ASSERT_EQ(ToVariant(row.value, row.type, v.Ptr()), S_OK) << "type " << row.type;
        EXPECT_EQ(v.Get().vt, row.vt) << "type " << row.type;
        CimValue back;
        EXPECT_EQ(FromVariant(v.Get(), row.type, back), S_OK) << "type " << row.type;
        EXPECT_TRUE(back == row.value) << "type " << row.type;
    }
}

TEST(cimstoreTypes, UnsignedValuesTravelAsSignedBits)
{
    CCVariant v;
    ASSERT_EQ(ToVariant(CimValue(uint64_t{4294967295u}), CIM_UINT32, v.Ptr()), S_OK);
    EXPECT_EQ(v.Get().lVal, -1);
    CCVariant text;
    ASSERT_EQ(ToVariant(CimValue(uint64_t{18446744073709551615u}), CIM_UINT64, text.Ptr()), S_OK);
    EXPECT_STREQ(text.Get().bstrVal, L"18446744073709551615");

    CCVariant i2;
    i2.Ptr()->vt = VT_I2;
    i2.Ptr()->iVal = -1;
    CimValue out;
    ASSERT_EQ(FromVariant(i2.Get(), CIM_CHAR16, out), S_OK);
    EXPECT_TRUE(out == CimValue(int64_t{0xFFFF}));
    // A negative VT_I4 is not a valid uint16 (uint16 is carried as VT_I4 without wrapping).
    CCVariant i4;
    i4.Ptr()->vt = VT_I4;
    i4.Ptr()->lVal = -1;
    EXPECT_EQ(FromVariant(i4.Get(), CIM_UINT16, out), Hr(WBEM_E_TYPE_MISMATCH));
}

TEST(cimstoreTypes, FromVariantRejectsWhatCannotBeStored)
{
    CCVariant byRef;
    LONG l = 5;
    byRef.Ptr()->vt = VT_I4 | VT_BYREF;
    byRef.Ptr()->plVal = &l;
    CimValue out;
    EXPECT_EQ(FromVariant(byRef.Get(), CIM_SINT32, out), Hr(WBEM_E_TYPE_MISMATCH));
    CCVariant text;
    text.Ptr()->vt = VT_BSTR;
    text.Ptr()->bstrVal = SysAllocString(L"not a number");
    EXPECT_EQ(FromVariant(text.Get(), CIM_UINT32, out), Hr(WBEM_E_TYPE_MISMATCH));
    CCVariant numberText;
    numberText.Ptr()->vt = VT_BSTR;
    numberText.Ptr()->bstrVal = SysAllocString(L"123");
    ASSERT_EQ(FromVariant(numberText.Get(), CIM_UINT64, out), S_OK);
    EXPECT_TRUE(out == CimValue(uint64_t{123}));
    // Wine's WMI hands out path BSTRs whose length runs past the text: the string ends at its NUL.
    CCVariant padded;
    padded.Ptr()->vt = VT_BSTR;
    padded.Ptr()->bstrVal = SysAllocStringLen(L"C:\0\0\0", 5);
    ASSERT_EQ(FromVariant(padded.Get(), CIM_STRING, out), S_OK);
    EXPECT_TRUE(out == CimValue(std::wstring(L"C:")));
}

TEST(cimstoreTypes, NamesCompareWithoutCase)
{
    EXPECT_TRUE(EqualsNoCase(L"Win32_Service", L"WIN32_SERVICE"));
    EXPECT_FALSE(EqualsNoCase(L"Win32_Service", L"Win32_Services"));
    EXPECT_TRUE(EqualsNoCase(L"\x00C4ra", L"\x00E4RA"));
    EXPECT_TRUE(LessNoCase(L"alpha", L"Beta"));
    EXPECT_FALSE(LessNoCase(L"Beta", L"ALPHA"));
    EXPECT_EQ(CimTypeFromName(L"UINT32"), CIM_UINT32);
    EXPECT_EQ(CimTypeFromName(L"ref"), CIM_EMPTY);
}

TEST(cimstoreTypes, NumericComparisonIgnoresTextForm)
{
    // "5" sorts after "4096" as text; as uint64 it is smaller.
    EXPECT_LT(CompareScalars(CimScalar(uint64_t{5}), CimScalar(std::wstring(L"4096")), CIM_UINT64), 0);
    EXPECT_EQ(CompareScalars(CimScalar(std::wstring(L"ABC")), CimScalar(std::wstring(L"abc")), CIM_STRING), 0);
    EXPECT_GT(CompareScalars(CimScalar(1.5), CimScalar(int64_t{1}), CIM_REAL64), 0);
}

}  // namespace
