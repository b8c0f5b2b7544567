// Coercion to CIM types and the VARIANT form of values.
#include "cimstore/CimTypes.h"

#include <gtest/gtest.h>

using namespace cimstore;

namespace {

constexpr HRESULT kMismatch = Hr(WBEM_E_TYPE_MISMATCH);
CimValue I(int64_t i) { return CimValue(i); }
CimValue U(uint64_t u) { return CimValue(u); }
CimScalar S(const wchar_t* wsz) { return CimScalar(std::wstring(wsz)); }

TEST(cimstoreTypes, CoerceFollowsPutRules)
{
    const struct { const char* szName; CimValue input; CIMTYPE type; HRESULT hr; CimValue expected = {}; } rows[] = {
        {"decimal string to uint32", L"42", CIM_UINT32, S_OK, U(42)},
        {"padded string to sint32", L" -17 ", CIM_SINT32, S_OK, I(-17)},
        {"sint8 minimum", L"-128", CIM_SINT8, S_OK, I(-128)}, {"sint8 below range", L"-129", CIM_SINT8, kMismatch},
        {"uint8 above range", 256, CIM_UINT8, kMismatch}, {"negative to uint32", -1, CIM_UINT32, kMismatch},
        {"uint32 maximum", U(4294967295u), CIM_UINT32, S_OK, U(4294967295u)},
        {"uint32 above range", U(4294967296u), CIM_UINT32, kMismatch},
        {"uint64 maximum as text", L"18446744073709551615", CIM_UINT64, S_OK, U(18446744073709551615u)},
        {"uint64 overflow as text", L"18446744073709551616", CIM_UINT64, kMismatch},
        {"sint64 minimum", L"-9223372036854775808", CIM_SINT64, S_OK, I(INT64_MIN)},
        {"sint64 below range", L"-9223372036854775809", CIM_SINT64, kMismatch},
        {"letters to sint32", L"12abc", CIM_SINT32, kMismatch}, {"empty text to uint16", L"", CIM_UINT16, kMismatch},
        {"real rounds half to even (down)", 2.5, CIM_SINT32, S_OK, I(2)},
        {"real rounds half to even (up)", 3.5, CIM_SINT32, S_OK, I(4)},
        {"TRUE is -1 for integers", true, CIM_SINT16, S_OK, I(-1)},
        {"TRUE does not fit uint8", true, CIM_UINT8, kMismatch}, {"text to real64", L"1.5e3", CIM_REAL64, S_OK, 1500.0},
        {"real32 overflow", 1e39, CIM_REAL32, kMismatch},
        {"real32 rounds to single", 0.1, CIM_REAL32, S_OK, static_cast<double>(0.1f)},
        {"true as text", L"true", CIM_BOOLEAN, S_OK, true}, {"0 as text", L"0", CIM_BOOLEAN, S_OK, false},
        {"nonsense to boolean", L"maybe", CIM_BOOLEAN, kMismatch}, {"integer to boolean", 5, CIM_BOOLEAN, S_OK, true},
        {"timestamp", L"20240131120000.000000+060", CIM_DATETIME, S_OK, L"20240131120000.000000+060"},
        {"interval", L"00000001020304.000000:000", CIM_DATETIME, S_OK, L"00000001020304.000000:000"},
        {"bad datetime", L"yesterday", CIM_DATETIME, kMismatch}, {"number to reference", 5, CIM_REFERENCE, kMismatch},
        {"letter to char16", L"A", CIM_CHAR16, S_OK, I(65)},
        {"NULL fits anything", CimValue(), CIM_UINT8, S_OK, CimValue()},
        {"array elements", CimValue::Array({S(L"1"), int64_t{2}}), CIM_UINT16 | CIM_FLAG_ARRAY, S_OK,
         CimValue::Array({uint64_t{1}, uint64_t{2}})},
        {"array element out of range", CimValue::Array({int64_t{1}, int64_t{70000}}), CIM_UINT16 | CIM_FLAG_ARRAY,
         kMismatch}, {"scalar into array", 1, CIM_UINT16 | CIM_FLAG_ARRAY, kMismatch},
        {"array into scalar", CimValue::Array({}), CIM_UINT16, kMismatch}, {"object", 1, CIM_OBJECT, kMismatch},
    };
    for (const auto& row : rows) {
        CimValue out(L"untouched");
        const HRESULT hr = Coerce(row.input, row.type, out);
        EXPECT_EQ(hr, row.hr) << row.szName << std::hex << " hr=0x" << hr;
        if (SUCCEEDED(row.hr) && SUCCEEDED(hr)) {
            EXPECT_TRUE(out == row.expected) << row.szName;
        }
    }
}

TEST(cimstoreTypes, VariantFormsMatchWmiAndRoundTrip)
{
    const struct { CIMTYPE type; CimValue value; VARTYPE vt; } rows[] = {
        {CIM_SINT8, I(-5), VT_I2}, {CIM_UINT8, U(200), VT_UI1}, {CIM_SINT16, I(-300), VT_I2},
        {CIM_UINT16, U(60000), VT_I4}, {CIM_SINT32, I(-70000), VT_I4}, {CIM_UINT32, U(4000000000u), VT_I4},
        {CIM_SINT64, I(-5000000000), VT_BSTR}, {CIM_UINT64, U(18446744073709551615u), VT_BSTR},
        {CIM_REAL32, static_cast<double>(1.25f), VT_R4}, {CIM_REAL64, -2.5e-7, VT_R8}, {CIM_BOOLEAN, true, VT_BOOL},
        {CIM_STRING, L"text", VT_BSTR}, {CIM_DATETIME, L"20240131120000.000000+060", VT_BSTR},
        {CIM_REFERENCE, L"A.B=1", VT_BSTR}, {CIM_CHAR16, I(0xFFFF), VT_I2}, {CIM_STRING, CimValue(), VT_NULL},
        {CIM_UINT32 | CIM_FLAG_ARRAY, CimValue::Array({uint64_t{1}, uint64_t{4294967295u}}), VT_ARRAY | VT_I4},
        {CIM_STRING | CIM_FLAG_ARRAY, CimValue::Array({S(L"a"), S(L"")}), VT_ARRAY | VT_BSTR},
        {CIM_BOOLEAN | CIM_FLAG_ARRAY, CimValue::Array({}), VT_ARRAY | VT_BOOL},
    };
    for (const auto& row : rows) {
        CCVariant v;
        ASSERT_EQ(ToVariant(row.value, row.type, v.Ptr()), S_OK) << "type " << row.type;
        EXPECT_EQ(v.Get().vt, row.vt) << "type " << row.type;
        CimValue back;
        EXPECT_EQ(FromVariant(v.Get(), row.type, back), S_OK) << "type " << row.type;
        EXPECT_TRUE(back == row.value) << "type " << row.type;
    }
}

// The round trip above passes for any symmetric mapping; these pin the bits WMI clients see.
TEST(cimstoreTypes, VariantBitsAndRejects)
{
    CCVariant v;
    ASSERT_EQ(ToVariant(U(4294967295u), CIM_UINT32, v.Ptr()), S_OK);
    EXPECT_EQ(v.Get().lVal, -1);
    ASSERT_EQ(ToVariant(U(18446744073709551615u), CIM_UINT64, v.GetAddress()), S_OK);
    EXPECT_STREQ(v.Get().bstrVal, L"18446744073709551615");
    CimValue out;
    v.Clear();
    v.Ptr()->vt = VT_I2;
    v.Ptr()->iVal = -1;
    ASSERT_EQ(FromVariant(v.Get(), CIM_CHAR16, out), S_OK);
    EXPECT_TRUE(out == I(0xFFFF));
    // uint16 travels as VT_I4 without wrapping, so a negative one is not a uint16.
    v.Ptr()->vt = VT_I4;
    v.Ptr()->lVal = -1;
    EXPECT_EQ(FromVariant(v.Get(), CIM_UINT16, out), kMismatch);
    v.Ptr()->vt = VT_EMPTY;
    v.SetText(L"123");
    ASSERT_EQ(FromVariant(v.Get(), CIM_UINT64, out), S_OK);
    EXPECT_TRUE(out == U(123));
    // Wine's WMI hands out path BSTRs whose length runs past the text: the string ends at its NUL.
    v.Clear();
    v.Ptr()->vt = VT_BSTR;
    v.Ptr()->bstrVal = SysAllocStringLen(L"C:\0\0\0", 5);
    ASSERT_EQ(FromVariant(v.Get(), CIM_STRING, out), S_OK);
    EXPECT_TRUE(out == CimValue(L"C:"));
}

TEST(cimstoreTypes, NamesAndComparisons)
{
    EXPECT_TRUE(EqualsNoCase(L"Win32_Service", L"WIN32_SERVICE"));
    EXPECT_FALSE(EqualsNoCase(L"Win32_Service", L"Win32_Services"));
    EXPECT_TRUE(EqualsNoCase(L"\x00C4ra", L"\x00E4RA"));
    EXPECT_TRUE(LessNoCase(L"alpha", L"Beta"));
    EXPECT_FALSE(LessNoCase(L"Beta", L"ALPHA"));
    EXPECT_EQ(CimTypeFromName(L"UINT32"), CIM_UINT32);
    EXPECT_EQ(CimTypeFromName(L"ref"), CIM_EMPTY);
    // "5" sorts after "4096" as text; as uint64 it is smaller.
    EXPECT_LT(CompareScalars(uint64_t{5}, S(L"4096"), CIM_UINT64), 0);
    EXPECT_EQ(CompareScalars(S(L"ABC"), S(L"abc"), CIM_STRING), 0);
    EXPECT_GT(CompareScalars(1.5, int64_t{1}, CIM_REAL64), 0);
}

}  // namespace
