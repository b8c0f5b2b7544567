// CIM types, the value type of the store, coercion between types and the VARIANT form.
#pragma once

#include <windows.h>
#include <oleauto.h>
#include <wbemcli.h>

#include "access/ComHolders.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace cimstore {

// WBEMSTATUS values are unsigned enumerators; comparing them with HRESULT needs a cast.
constexpr HRESULT Hr(WBEMSTATUS status) { return static_cast<HRESULT>(status); }

// Lower-case form used for every case-insensitive name and key comparison.
std::wstring Fold(std::wstring_view ws);
bool EqualsNoCase(std::wstring_view a, std::wstring_view b);
bool LessNoCase(std::wstring_view a, std::wstring_view b);

std::wstring Widen(std::string_view s);
std::string Narrow(std::wstring_view ws);

// One scalar: signed integers and char16 as int64, unsigned as uint64, reals as double,
// string/datetime/reference as text.
using CimScalar = std::variant<bool, int64_t, uint64_t, double, std::wstring>;

class CimValue {
public:
    CimValue() = default;
    CimValue(bool b) : m_bNull(false), m_scalar(b) {}
    CimValue(int64_t i) : m_bNull(false), m_scalar(i) {}
    CimValue(int i) : m_bNull(false), m_scalar(static_cast<int64_t>(i)) {}
    CimValue(uint64_t u) : m_bNull(false), m_scalar(u) {}
    CimValue(double d) : m_bNull(false), m_scalar(d) {}
    CimValue(std::wstring ws) : m_bNull(false), m_scalar(std::move(ws)) {}
    CimValue(const wchar_t* wsz) : m_bNull(false), m_scalar(std::wstring(wsz)) {}
    static CimValue Array(std::vector<CimScalar> items);
    static CimValue FromScalar(CimScalar scalar);

    bool IsNull() const { return m_bNull; }
    bool IsArray() const { return m_bArray; }
    const CimScalar& Scalar() const { return m_scalar; }
    const std::vector<CimScalar>& Items() const { return m_items; }

    bool operator==(const CimValue& other) const = default;

private:
    bool m_bNull = true;
    bool m_bArray = false;
    CimScalar m_scalar;
    std::vector<CimScalar> m_items;
};

// Name of a CIM type as MOF spells it ("uint32", "string"); empty for unknown types.
std::wstring CimTypeName(CIMTYPE type);
// Type from a MOF type name (case-insensitive); CIM_EMPTY when unknown.
CIMTYPE CimTypeFromName(std::wstring_view wsName);
bool IsIntegerType(CIMTYPE type);
bool IsTextType(CIMTYPE type);
VARTYPE VarTypeOf(CIMTYPE type);

// Converts value to the CIM type (array flag included), as WMI's Put does.
// WBEM_E_TYPE_MISMATCH when the value cannot be represented.
HRESULT Coerce(const CimValue& value, CIMTYPE type, CimValue& out);
HRESULT CoerceScalar(const CimScalar& value, CIMTYPE type, CimScalar& out);

// Decimal text of a scalar as MOF and object paths print it (strings unquoted).
std::wstring ScalarText(const CimScalar& value, CIMTYPE type);

// Orders two values of the same CIM type: <0, 0, >0; strings case-insensitively.
int CompareScalars(const CimScalar& a, const CimScalar& b, CIMTYPE type);

// The VARIANT form of a value of the CIM type (VT_NULL for null). pv must be cleared/empty.
HRESULT ToVariant(const CimValue& value, CIMTYPE type, VARIANT* pv);
// Reads a VARIANT for a property of the given type (uint32 arrives as VT_I4 bits).
HRESULT FromVariant(const VARIANT& v, CIMTYPE type, CimValue& out);

}  // namespace cimstore
