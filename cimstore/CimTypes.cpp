#include "cimstore/CimTypes.h"

#include <cfloat>
#include <cmath>
#include <cstdio>
#include <cwchar>
#include <cwctype>
#include <limits>

namespace cimstore {

namespace {

wchar_t FoldChar(wchar_t ch)
{
    if (ch < 0x80)
        return (ch >= L'A' && ch <= L'Z') ? static_cast<wchar_t>(ch + 32) : ch;
    wchar_t buf[1] = {ch};
    CharLowerBuffW(buf, 1);
    return buf[0];
}

struct TypeRow {
    CIMTYPE type;
    const wchar_t* wszName;
    VARTYPE vt;
};

constexpr TypeRow kTypes[] = {
    {CIM_SINT8, L"sint8", VT_I2},        {CIM_UINT8, L"uint8", VT_UI1},       {CIM_SINT16, L"sint16", VT_I2},
    {CIM_UINT16, L"uint16", VT_I4},      {CIM_SINT32, L"sint32", VT_I4},      {CIM_UINT32, L"uint32", VT_I4},
    {CIM_SINT64, L"sint64", VT_BSTR},    {CIM_UINT64, L"uint64", VT_BSTR},    {CIM_REAL32, L"real32", VT_R4},
    {CIM_REAL64, L"real64", VT_R8},      {CIM_BOOLEAN, L"boolean", VT_BOOL},  {CIM_STRING, L"string", VT_BSTR},
    {CIM_DATETIME, L"datetime", VT_BSTR}, {CIM_REFERENCE, L"ref", VT_BSTR},    {CIM_CHAR16, L"char16", VT_I2},
    {CIM_OBJECT, L"object", VT_UNKNOWN},
};

const TypeRow* FindType(CIMTYPE type)
{
    for (const TypeRow& row : kTypes)
        if (row.type == (type & ~CIM_FLAG_ARRAY))
            return &row;
    return nullptr;
}

bool IntegerRange(CIMTYPE type, int64_t& iMin, uint64_t& uMax)
{
    switch (type) {
    case CIM_SINT8: iMin = -128; uMax = 127; return true;
    case CIM_UINT8: iMin = 0; uMax = 255; return true;
    case CIM_SINT16: iMin = -32768; uMax = 32767; return true;
    case CIM_UINT16: case CIM_CHAR16: iMin = 0; uMax = 65535; return true;
    case CIM_SINT32: iMin = INT32_MIN; uMax = INT32_MAX; return true;
    case CIM_UINT32: iMin = 0; uMax = UINT32_MAX; return true;
    case CIM_SINT64: iMin = INT64_MIN; uMax = INT64_MAX; return true;
    case CIM_UINT64: iMin = 0; uMax = UINT64_MAX; return true;
    default: return false;
    }
}

bool IsUnsigned(CIMTYPE type)
{
    return type == CIM_UINT8 || type == CIM_UINT16 || type == CIM_UINT32 || type == CIM_UINT64;
}

std::wstring_view Trim(std::wstring_view ws)
{
    while (!ws.empty() && iswspace(ws.front()))
        ws.remove_prefix(1);
    while (!ws.empty() && iswspace(ws.back()))
        ws.remove_suffix(1);
    return ws;
}

// Parses [+|-]digits; bNegative tells the sign, uMagnitude the absolute value.
bool ParseDecimal(std::wstring_view ws, bool& bNegative, uint64_t& uMagnitude)
{
    ws = Trim(ws);
    bNegative = false;
    if (!ws.empty() && (ws.front() == L'-' || ws.front() == L'+')) {
        bNegative = ws.front() == L'-';
        ws.remove_prefix(1);
    }
    if (ws.empty())
        return false;
    uint64_t u = 0;
    for (wchar_t ch : ws) {
        if (ch < L'0' || ch > L'9')
            return false;
        const unsigned digit = static_cast<unsigned>(ch - L'0');
        if (u > (UINT64_MAX - digit) / 10)
            return false;
        u = u * 10 + digit;
    }
    uMagnitude = u;
    return true;
}

bool ParseReal(std::wstring_view ws, double& d)
{
    const std::wstring text(Trim(ws));
    if (text.empty())
        return false;
    wchar_t* pEnd = nullptr;
    d = wcstod(text.c_str(), &pEnd);
    return pEnd == text.c_str() + text.size();
}

HRESULT FitInteger(bool bNegative, uint64_t uMagnitude, CIMTYPE type, CimScalar& out)
{
    int64_t iMin = 0;
    uint64_t uMax = 0;
    IntegerRange(type, iMin, uMax);
    if (bNegative) {
        if (uMagnitude == 0) {
            bNegative = false;
        } else {
            const uint64_t uLimit = static_cast<uint64_t>(-(iMin + 1)) + 1;
            if (iMin == 0 || uMagnitude > uLimit)
                return Hr(WBEM_E_TYPE_MISMATCH);
        }
    } else if (uMagnitude > uMax) {
        return Hr(WBEM_E_TYPE_MISMATCH);
    }
    if (IsUnsigned(type))
        out = uMagnitude;
    else
        out = bNegative ? static_cast<int64_t>(0 - uMagnitude) : static_cast<int64_t>(uMagnitude);
    return S_OK;
}

bool IsValidDatetime(std::wstring_view ws)
{
    if (ws.size() != 25 || ws[14] != L'.')
        return false;
    auto digitsOrStar = [&](size_t first, size_t last, bool bStar) {
        for (size_t i = first; i < last; ++i)
            if (!(iswdigit(ws[i]) || (bStar && ws[i] == L'*')))
                return false;
        return true;
    };
    if (ws[21] == L':')
        return digitsOrStar(0, 14, false) && digitsOrStar(15, 21, false) && ws.substr(22) == L"000";
    return (ws[21] == L'+' || ws[21] == L'-') && digitsOrStar(0, 14, true) && digitsOrStar(15, 21, true) &&
           digitsOrStar(22, 25, true);
}

std::wstring RealText(double d, bool bSingle)
{
    wchar_t buf[64];
    if (bSingle) {
        swprintf(buf, 64, L"%.9g", d);
        return buf;
    }
    swprintf(buf, 64, L"%.15g", d);
    if (wcstod(buf, nullptr) != d)
        swprintf(buf, 64, L"%.17g", d);
    return buf;
}

}  // namespace

std::wstring Fold(std::wstring_view ws)
{
    std::wstring out(ws);
    for (wchar_t& ch : out)
        ch = FoldChar(ch);
    return out;
}

bool EqualsNoCase(std::wstring_view a, std::wstring_view b)
{
    if (a.size() != b.size())
        return false;
    for (size_t i = 0; i < a.size(); ++i)
        if (a[i] != b[i] && FoldChar(a[i]) != FoldChar(b[i]))
            return false;
    return true;
}

bool LessNoCase(std::wstring_view a, std::wstring_view b)
{
    const size_t n = a.size() < b.size() ? a.size() : b.size();
    for (size_t i = 0; i < n; ++i) {
        const wchar_t ca = FoldChar(a[i]);
        const wchar_t cb = FoldChar(b[i]);
        if (ca != cb)
            return ca < cb;
    }
    return a.size() < b.size();
}

std::wstring Widen(std::string_view s)
{
    if (s.empty())
        return {};
    const int cch = MultiByteToWideChar(CP_UTF8, 0, s.data(), static_cast<int>(s.size()), nullptr, 0);
    std::wstring out(static_cast<size_t>(cch), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, s.data(), static_cast<int>(s.size()), out.data(), cch);
    return out;
}

std::string Narrow(std::wstring_view ws)
{
    if (ws.empty())
        return {};
    const int cch = static_cast<int>(ws.size());
    const int cb = WideCharToMultiByte(CP_UTF8, 0, ws.data(), cch, nullptr, 0, nullptr, nullptr);
    std::string out(static_cast<size_t>(cb), '\0');
    WideCharToMultiByte(CP_UTF8, 0, ws.data(), cch, out.data(), cb, nullptr, nullptr);
    return out;
}

CimValue CimValue::Array(std::vector<CimScalar> items)
{
    CimValue v;
    v.m_bNull = false;
    v.m_bArray = true;
    v.m_items = std::move(items);
    return v;
}

CimValue CimValue::FromScalar(CimScalar scalar)
{
    CimValue v;
    v.m_bNull = false;
    v.m_scalar = std::move(scalar);
    return v;
}

std::wstring CimTypeName(CIMTYPE type)
{
    const TypeRow* pRow = FindType(type);
    return pRow ? pRow->wszName : L"";
}

CIMTYPE CimTypeFromName(std::wstring_view wsName)
{
    for (const TypeRow& row : kTypes)
        if (row.type != CIM_REFERENCE && EqualsNoCase(wsName, row.wszName))
            return row.type;
    return CIM_EMPTY;
}

bool IsIntegerType(CIMTYPE type)
{
    int64_t iMin = 0;
    uint64_t uMax = 0;
    return IntegerRange(type & ~CIM_FLAG_ARRAY, iMin, uMax);
}

bool IsTextType(CIMTYPE type)
{
    type &= ~CIM_FLAG_ARRAY;
    return type == CIM_STRING || type == CIM_DATETIME || type == CIM_REFERENCE;
}

VARTYPE VarTypeOf(CIMTYPE type)
{
    const TypeRow* pRow = FindType(type);
    const VARTYPE vt = pRow ? pRow->vt : static_cast<VARTYPE>(VT_EMPTY);
    return (type & CIM_FLAG_ARRAY) ? static_cast<VARTYPE>(vt | VT_ARRAY) : vt;
}

HRESULT CoerceScalar(const CimScalar& value, CIMTYPE type, CimScalar& out)
{
    type &= ~CIM_FLAG_ARRAY;
    if (IsIntegerType(type)) {
        bool bNegative = false;
        uint64_t uMagnitude = 0;
        if (const bool* pb = std::get_if<bool>(&value)) {
            // VariantChangeType turns TRUE into -1.
            bNegative = *pb;
            uMagnitude = *pb ? 1 : 0;
        } else if (const int64_t* pi = std::get_if<int64_t>(&value)) {
            bNegative = *pi < 0;
            uMagnitude = bNegative ? 0 - static_cast<uint64_t>(*pi) : static_cast<uint64_t>(*pi);
        } else if (const uint64_t* pu = std::get_if<uint64_t>(&value)) {
            uMagnitude = *pu;
        } else if (const double* pd = std::get_if<double>(&value)) {
            const double r = std::nearbyint(*pd);
            if (!std::isfinite(r) || std::fabs(r) >= 18446744073709551616.0)
                return Hr(WBEM_E_TYPE_MISMATCH);
            bNegative = r < 0;
            uMagnitude = static_cast<uint64_t>(std::fabs(r));
        } else {
            const std::wstring& ws = std::get<std::wstring>(value);
            if (!ParseDecimal(ws, bNegative, uMagnitude)) {
                if (type == CIM_CHAR16 && ws.size() == 1) {
                    out = static_cast<int64_t>(ws[0]);
                    return S_OK;
                }
                return Hr(WBEM_E_TYPE_MISMATCH);
            }
        }
        return FitInteger(bNegative, uMagnitude, type, out);
    }
    switch (type) {
    case CIM_REAL32:
    case CIM_REAL64: {
        double d = 0;
        if (const bool* pb = std::get_if<bool>(&value))
            d = *pb ? -1.0 : 0.0;
        else if (const int64_t* pi = std::get_if<int64_t>(&value))
            d = static_cast<double>(*pi);
        else if (const uint64_t* pu = std::get_if<uint64_t>(&value))
            d = static_cast<double>(*pu);
        else if (const double* pd = std::get_if<double>(&value))
            d = *pd;
        else if (!ParseReal(std::get<std::wstring>(value), d))
            return Hr(WBEM_E_TYPE_MISMATCH);
        if (type == CIM_REAL32) {
            if (std::isfinite(d) && std::fabs(d) > FLT_MAX)
                return Hr(WBEM_E_TYPE_MISMATCH);
            d = static_cast<float>(d);
        }
        out = d;
        return S_OK;
    }
    case CIM_BOOLEAN:
        if (const bool* pb = std::get_if<bool>(&value)) {
            out = *pb;
        } else if (const int64_t* pi = std::get_if<int64_t>(&value)) {
            out = *pi != 0;
        } else if (const uint64_t* pu = std::get_if<uint64_t>(&value)) {
            out = *pu != 0;
        } else if (const double* pd = std::get_if<double>(&value)) {
            out = *pd != 0;
        } else {
            const std::wstring_view ws = Trim(std::get<std::wstring>(value));
            double d = 0;
            if (EqualsNoCase(ws, L"true"))
                out = true;
            else if (EqualsNoCase(ws, L"false"))
                out = false;
            else if (ParseReal(ws, d))
                out = d != 0;
            else
                return Hr(WBEM_E_TYPE_MISMATCH);
        }
        return S_OK;
    case CIM_STRING:
    case CIM_DATETIME:
    case CIM_REFERENCE: {
        std::wstring text;
        if (const std::wstring* pws = std::get_if<std::wstring>(&value)) {
            text = *pws;
        } else if (type == CIM_REFERENCE) {
            return Hr(WBEM_E_TYPE_MISMATCH);
        } else if (const bool* pb = std::get_if<bool>(&value)) {
            text = *pb ? L"True" : L"False";
        } else if (const int64_t* pi = std::get_if<int64_t>(&value)) {
            text = std::to_wstring(*pi);
        } else if (const uint64_t* pu = std::get_if<uint64_t>(&value)) {
            text = std::to_wstring(*pu);
        } else {
            text = RealText(std::get<double>(value), false);
        }
        if (type == CIM_DATETIME && !IsValidDatetime(text))
            return Hr(WBEM_E_TYPE_MISMATCH);
        out = std::move(text);
        return S_OK;
    }
    default:
        return Hr(WBEM_E_TYPE_MISMATCH);
    }
}

HRESULT Coerce(const CimValue& value, CIMTYPE type, CimValue& out)
{
    if (value.IsNull()) {
        out = CimValue();
        return S_OK;
    }
    const bool bArrayType = (type & CIM_FLAG_ARRAY) != 0;
    if (bArrayType != value.IsArray())
        return Hr(WBEM_E_TYPE_MISMATCH);
    if (!bArrayType) {
        CimScalar s;
        const HRESULT hr = CoerceScalar(value.Scalar(), type, s);
        if (FAILED(hr))
            return hr;
        out = CimValue::FromScalar(std::move(s));
        return S_OK;
    }
    std::vector<CimScalar> items;
    items.reserve(value.Items().size());
    for (const CimScalar& item : value.Items()) {
        CimScalar s;
        const HRESULT hr = CoerceScalar(item, type, s);
        if (FAILED(hr))
            return hr;
        items.push_back(std::move(s));
    }
    out = CimValue::Array(std::move(items));
    return S_OK;
}

std::wstring ScalarText(const CimScalar& value, CIMTYPE type)
{
    type &= ~CIM_FLAG_ARRAY;
    if (const bool* pb = std::get_if<bool>(&value))
        return *pb ? L"TRUE" : L"FALSE";
    if (const int64_t* pi = std::get_if<int64_t>(&value))
        return std::to_wstring(*pi);
    if (const uint64_t* pu = std::get_if<uint64_t>(&value))
        return std::to_wstring(*pu);
    if (const double* pd = std::get_if<double>(&value))
        return RealText(*pd, type == CIM_REAL32);
    return std::get<std::wstring>(value);
}

int CompareScalars(const CimScalar& a, const CimScalar& b, CIMTYPE type)
{
    CimScalar ca;
    CimScalar cb;
    if (FAILED(CoerceScalar(a, type, ca)) || FAILED(CoerceScalar(b, type, cb)))
        return a.index() < b.index() ? -1 : (a.index() > b.index() ? 1 : 0);
    if (const std::wstring* pa = std::get_if<std::wstring>(&ca)) {
        const std::wstring& sb = std::get<std::wstring>(cb);
        const int r = CompareStringOrdinal(pa->c_str(), static_cast<int>(pa->size()), sb.c_str(),
                                           static_cast<int>(sb.size()), TRUE);
        return r - CSTR_EQUAL;
    }
    return ca < cb ? -1 : (cb < ca ? 1 : 0);
}

namespace {

HRESULT PutElement(VARTYPE vt, const CimScalar& s, CIMTYPE type, void* pTarget)
{
    switch (vt) {
    case VT_I2: {
        const int64_t i = std::get<int64_t>(s);
        *static_cast<SHORT*>(pTarget) = static_cast<SHORT>(static_cast<uint16_t>(i));
        return S_OK;
    }
    case VT_UI1:
        *static_cast<BYTE*>(pTarget) = static_cast<BYTE>(std::get<uint64_t>(s));
        return S_OK;
    case VT_I4:
        if (const uint64_t* pu = std::get_if<uint64_t>(&s))
            *static_cast<LONG*>(pTarget) = static_cast<LONG>(static_cast<uint32_t>(*pu));
        else
            *static_cast<LONG*>(pTarget) = static_cast<LONG>(std::get<int64_t>(s));
        return S_OK;
    case VT_R4:
        *static_cast<float*>(pTarget) = static_cast<float>(std::get<double>(s));
        return S_OK;
    case VT_R8:
        *static_cast<double*>(pTarget) = std::get<double>(s);
        return S_OK;
    case VT_BOOL:
        *static_cast<VARIANT_BOOL*>(pTarget) = std::get<bool>(s) ? VARIANT_TRUE : VARIANT_FALSE;
        return S_OK;
    case VT_BSTR: {
        CCBstr b(std::wstring_view(ScalarText(s, type)));
        if (!b.Get())
            return Hr(WBEM_E_OUT_OF_MEMORY);
        *static_cast<BSTR*>(pTarget) = b.Detach();
        return S_OK;
    }
    default:
        return Hr(WBEM_E_TYPE_MISMATCH);
    }
}

// Reads one element of VARIANT type vt into a scalar, WMI's unsigned-as-signed forms included.
HRESULT ReadElement(VARTYPE vt, const void* p, CIMTYPE type, CimScalar& out)
{
    const CIMTYPE base = type & ~CIM_FLAG_ARRAY;
    switch (vt) {
    case VT_I1: out = static_cast<int64_t>(*static_cast<const signed char*>(p)); break;
    case VT_I2:
        if (base == CIM_CHAR16)
            out = static_cast<int64_t>(static_cast<uint16_t>(*static_cast<const SHORT*>(p)));
        else
            out = static_cast<int64_t>(*static_cast<const SHORT*>(p));
        break;
    case VT_I4:
    case VT_INT:
        if (base == CIM_UINT32)
            out = static_cast<uint64_t>(static_cast<uint32_t>(*static_cast<const LONG*>(p)));
        else
            out = static_cast<int64_t>(*static_cast<const LONG*>(p));
        break;
    case VT_I8: out = static_cast<int64_t>(*static_cast<const LONGLONG*>(p)); break;
    case VT_UI1: out = static_cast<uint64_t>(*static_cast<const BYTE*>(p)); break;
    case VT_UI2: out = static_cast<uint64_t>(*static_cast<const USHORT*>(p)); break;
    case VT_UI4:
    case VT_UINT: out = static_cast<uint64_t>(*static_cast<const ULONG*>(p)); break;
    case VT_UI8: out = static_cast<uint64_t>(*static_cast<const ULONGLONG*>(p)); break;
    case VT_R4: out = static_cast<double>(*static_cast<const float*>(p)); break;
    case VT_R8: out = *static_cast<const double*>(p); break;
    case VT_BOOL: out = *static_cast<const VARIANT_BOOL*>(p) != VARIANT_FALSE; break;
    case VT_BSTR: {
        // A CIM string ends at its first NUL; Wine's own WMI hands out system-property BSTRs whose
        // length runs past the text.
        const BSTR b = *static_cast<const BSTR*>(p);
        out = std::wstring(b ? b : L"", b ? wcsnlen(b, SysStringLen(b)) : 0);
        break;
    }
    default: return Hr(WBEM_E_TYPE_MISMATCH);
    }
    return S_OK;
}

}  // namespace

HRESULT ToVariant(const CimValue& value, CIMTYPE type, VARIANT* pv)
{
    VariantInit(pv);
    if (value.IsNull()) {
        pv->vt = VT_NULL;
        return S_OK;
    }
    const VARTYPE vt = static_cast<VARTYPE>(VarTypeOf(type) & ~VT_ARRAY);
    if (vt == VT_EMPTY || vt == VT_UNKNOWN)
        return Hr(WBEM_E_TYPE_MISMATCH);
    if (!value.IsArray()) {
        CCVariant holder;
        holder.Ptr()->vt = vt;
        const HRESULT hr = PutElement(vt, value.Scalar(), type, &holder.Ptr()->lVal);
        if (FAILED(hr)) {
            holder.Ptr()->vt = VT_EMPTY;
            return hr;
        }
        *pv = holder.Get();
        holder.Ptr()->vt = VT_EMPTY;  // ownership passed to *pv
        return S_OK;
    }
    CCSafeArray array(SafeArrayCreateVector(vt, 0, static_cast<ULONG>(value.Items().size())));
    if (!array.Get())
        return Hr(WBEM_E_OUT_OF_MEMORY);
    for (LONG i = 0; i < static_cast<LONG>(value.Items().size()); ++i) {
        void* pElement = nullptr;
        HRESULT hr = SafeArrayPtrOfIndex(array.Get(), &i, &pElement);
        if (SUCCEEDED(hr))
            hr = PutElement(vt, value.Items()[static_cast<size_t>(i)], type, pElement);
        if (FAILED(hr))
            return hr;
    }
    pv->vt = static_cast<VARTYPE>(vt | VT_ARRAY);
    pv->parray = array.Detach();
    return S_OK;
}

HRESULT FromVariant(const VARIANT& v, CIMTYPE type, CimValue& out)
{
    if (v.vt == VT_NULL || v.vt == VT_EMPTY) {
        out = CimValue();
        return S_OK;
    }
    if (v.vt & VT_BYREF)
        return Hr(WBEM_E_TYPE_MISMATCH);
    if (!(v.vt & VT_ARRAY)) {
        CimScalar s;
        const HRESULT hr = ReadElement(v.vt, &v.lVal, type, s);
        if (FAILED(hr))
            return hr;
        return Coerce(CimValue::FromScalar(std::move(s)), type, out);
    }
    if (!v.parray || SafeArrayGetDim(v.parray) != 1)
        return Hr(WBEM_E_TYPE_MISMATCH);
    const VARTYPE vt = static_cast<VARTYPE>(v.vt & ~VT_ARRAY);
    LONG lower = 0;
    LONG upper = -1;
    SafeArrayGetLBound(v.parray, 1, &lower);
    SafeArrayGetUBound(v.parray, 1, &upper);
    std::vector<CimScalar> items;
    for (LONG i = lower; i <= upper; ++i) {
        void* pElement = nullptr;
        HRESULT hr = SafeArrayPtrOfIndex(v.parray, &i, &pElement);
        CimScalar s;
        if (SUCCEEDED(hr))
            hr = ReadElement(vt, pElement, type, s);
        if (FAILED(hr))
            return hr;
        items.push_back(std::move(s));
    }
    return Coerce(CimValue::Array(std::move(items)), type, out);
}

}  // namespace cimstore
