#include "framework/CCAssembly.h"

#include "access/ComHolders.h"
#include "access/ErrorText.h"
#include "framework/CCMethodTrace.h"
#include "framework/CCQuillTrace.h"

#include <msxml2.h>
#include <wrl/client.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <new>
#include <vector>

using Microsoft::WRL::ComPtr;

namespace {

constexpr char kCommonKey[] = "SOFTWARE\\Tessaline Systems\\Common";
constexpr wchar_t kDomProgId[] = L"MSXML2.FreeThreadedDOMDocument";
constexpr char kDefaultStringTable[] = "\\StringFileInfo\\040904b0\\";

// mingw-w64's headers declare these interfaces without their GUIDs.
constexpr IID kIID_IXMLDOMDocument2 = {0x2933bf95, 0x7b36, 0x11d2, {0xb2, 0x0e, 0x00, 0xc0, 0x4f, 0x98, 0x3e, 0x60}};
constexpr IID kIID_IXMLDOMElement = {0x2933bf86, 0x7b36, 0x11d2, {0xb2, 0x0e, 0x00, 0xc0, 0x4f, 0x98, 0x3e, 0x60}};

class CriticalSectionLock {
public:
    explicit CriticalSectionLock(CRITICAL_SECTION& cs) : m_cs(cs) { EnterCriticalSection(&m_cs); }
    ~CriticalSectionLock() { LeaveCriticalSection(&m_cs); }
    CriticalSectionLock(const CriticalSectionLock&) = delete;
    CriticalSectionLock& operator=(const CriticalSectionLock&) = delete;

private:
    CRITICAL_SECTION& m_cs;
};

class RegKey {
public:
    RegKey() = default;
    ~RegKey()
    {
        if (m_h)
            RegCloseKey(m_h);
    }
    RegKey(const RegKey&) = delete;
    RegKey& operator=(const RegKey&) = delete;
    HKEY* GetAddress() { return &m_h; }
    HKEY Get() const { return m_h; }

private:
    HKEY m_h = nullptr;
};

const char* OrEmpty(const char* sz)
{
    return sz ? sz : "";
}

// Copies as much of szSource as fits, always terminated; false when it had to be cut.
bool CopyText(char* szDest, size_t cchDest, const char* szSource)
{
    if (!szDest || cchDest == 0)
        return false;
    const size_t cchSource = strlen(OrEmpty(szSource));
    const size_t cchCopy = cchSource < cchDest ? cchSource : cchDest - 1;
    memcpy(szDest, OrEmpty(szSource), cchCopy);
    szDest[cchCopy] = '\0';
    return cchCopy == cchSource;
}

std::string Format(const char* szFormat, ...)
{
    va_list args;
    va_start(args, szFormat);
    va_list argsCopy;
    va_copy(argsCopy, args);
    const int cch = vsnprintf(nullptr, 0, szFormat, args);
    va_end(args);
    std::string s;
    if (cch > 0) {
        s.resize(static_cast<size_t>(cch) + 1);
        vsnprintf(s.data(), s.size(), szFormat, argsCopy);
        s.resize(static_cast<size_t>(cch));
    }
    va_end(argsCopy);
    return s;
}

std::wstring Widen(const char* sz)
{
    const int cch = MultiByteToWideChar(CP_ACP, 0, sz, -1, nullptr, 0);
    if (cch <= 1)
        return std::wstring();
    std::wstring ws(static_cast<size_t>(cch), L'\0');
    MultiByteToWideChar(CP_ACP, 0, sz, -1, ws.data(), cch);
    ws.resize(static_cast<size_t>(cch) - 1);
    return ws;
}

std::string Narrow(const wchar_t* wsz, int cchSource)
{
    if (!wsz || cchSource <= 0)
        return std::string();
    const int cch = WideCharToMultiByte(CP_ACP, 0, wsz, cchSource, nullptr, 0, nullptr, nullptr);
    if (cch <= 0)
        return std::string();
    std::string s(static_cast<size_t>(cch), '\0');
    WideCharToMultiByte(CP_ACP, 0, wsz, cchSource, s.data(), cch, nullptr, nullptr);
    return s;
}

std::string Narrow(BSTR bstr)
{
    return Narrow(bstr, bstr ? static_cast<int>(SysStringLen(bstr)) : 0);
}

void SetBstr(CCVariant& var, const wchar_t* wsz)
{
    VARIANT* pv = var.GetAddress();
    pv->bstrVal = SysAllocString(wsz);
    if (!pv->bstrVal)
        throw std::bad_alloc();
    pv->vt = VT_BSTR;
}

// An attribute's text, or "" when the node has none.
std::string AttributeText(IXMLDOMNode* pNode, const wchar_t* wszName)
{
    ComPtr<IXMLDOMElement> pElement;
    if (FAILED(pNode->QueryInterface(kIID_IXMLDOMElement, reinterpret_cast<void**>(pElement.GetAddressOf()))))
        return std::string();
    CCBstr bstrName(wszName);
    CCVariant varValue;
    if (pElement->getAttribute(bstrName.Get(), varValue.GetAddress()) != S_OK || varValue.Get().vt != VT_BSTR)
        return std::string();
    return Narrow(varValue.Get().bstrVal);
}

ComPtr<IXMLDOMNode> SelectSingleNode(IXMLDOMNode* pContext, const std::string& sXPath)
{
    ComPtr<IXMLDOMNode> pNode;
    CCBstr bstrXPath(Widen(sXPath.c_str()).c_str());
    if (pContext->selectSingleNode(bstrXPath.Get(), pNode.GetAddressOf()) != S_OK)
        pNode.Reset();
    return pNode;
}

// Reading the maps or a registry value must never let an exception out of a framework call.
template <class Body>
bool NoThrow(const char* szQualifiedName, Body&& body) noexcept
{
    try {
        return body();
    } catch (const std::bad_alloc&) {
        GetTrace().TraceMsg(TRACE_ERROR, szQualifiedName, "Internal", "Out of memory", "");
    } catch (...) {
        GetTrace().TraceMsg(TRACE_ERROR, szQualifiedName, "Internal", "Unexpected exception", "");
    }
    return false;
}

}  // namespace

CCAssembly& GetAssembly()
{
    static CCAssembly s_Assembly;
    return s_Assembly;
}

CCAssembly::CCAssembly()
{
    InitializeCriticalSection(&m_Lock);
    GetTrace().TraceMsg(TRACE_INFO_CC, "CCAssembly::CCAssembly", "Enter",
                        "An instance of CCAssembly has been constructed", "");
}

CCAssembly::~CCAssembly()
{
    GetTrace().TraceMsg(TRACE_INFO_CC, "CCAssembly::~CCAssembly", "Leave",
                        "An instance of CCAssembly has been destructed", "");
    if (m_hMutex)
        CloseHandle(m_hMutex);
    DeleteCriticalSection(&m_Lock);
}

int CCAssembly::DllInitialize(const char* szFeatureName, const char* szFeatureVersion, const char* szContextName)
{
    CCMethodTrace method(TRACE_INFO_CC, "CCAssembly::DllInitialize", "has been called",
                         "szFeatureName: %s, szFeatureVersion: %s, szContextName: %s", OrEmpty(szFeatureName),
                         OrEmpty(szFeatureVersion), OrEmpty(szContextName));
    bool bCommon = false;
    {
        CriticalSectionLock lock(m_Lock);
        bCommon = InitializeCommon();
    }
    if (!bCommon)
        return method.ReturnBool(false);
    CriticalEnter();
    bool bFeature = false;
    {
        CriticalSectionLock lock(m_Lock);
        bFeature = InitializeFeature(szFeatureName, szFeatureVersion, szContextName);
    }
    if (!bFeature)
        GetTrace().TraceMsg(TRACE_ERROR, "CCAssembly::DllInitialize", "Internal", "Initialize Feature failed", "");
    return method.ReturnBool(bFeature) ? 1 : 0;
}

bool CCAssembly::Initialize(const char* szFeatureName, const char* szFeatureVersion, const char* szContextName)
{
    CCMethodTrace method(TRACE_INFO_CC, "CCAssembly::Initialize", "has been called",
                         "szFeatureName: %s, szFeatureVersion: %s, szContextName: %s", OrEmpty(szFeatureName),
                         OrEmpty(szFeatureVersion), OrEmpty(szContextName));
    CriticalSectionLock lock(m_Lock);
    if (!InitializeCommon()) {
        GetTrace().TraceMsg(TRACE_ERROR, "CCAssembly::Initialize", "Internal", "InitializeCommon failed", "");
        return method.ReturnBool(false);
    }
    if (!InitializeFeature(szFeatureName, szFeatureVersion, szContextName)) {
        GetTrace().TraceMsg(TRACE_ERROR, "CCAssembly::Initialize", "Internal", "InitializeFeature failed", "");
        return method.ReturnBool(false);
    }
    return method.ReturnBool(true);
}

bool CCAssembly::DllUninitialize()
{
    CCMethodTrace method(TRACE_INFO_CC, "CCAssembly::DllUninitialize", "has been called");
    CriticalLeave();
    return method.ReturnBool(true);
}

bool CCAssembly::CopyOut(const char* szQualifiedName, const char* szFormat, const char* szValue, char* szBuffer,
                         size_t cchBuffer)
{
    CCMethodTrace method(TRACE_INFO_CC, szQualifiedName, "has been called");
    CriticalSectionLock lock(m_Lock);
    GetTrace().TraceMsg(TRACE_INFO_CC, szQualifiedName, "Internal", "", szFormat, szValue);
    return method.ReturnBool(CopyText(szBuffer, cchBuffer, szValue));
}

bool CCAssembly::GetFeatureName(char* szFeatureName, size_t cchBuffer)
{
    return CopyOut("CCAssembly::GetFeatureName", "szFeatureName: %s", m_szFeatureName, szFeatureName, cchBuffer);
}

bool CCAssembly::GetFeatureVersion(char* szFeatureVersion, size_t cchBuffer)
{
    return CopyOut("CCAssembly::GetFeatureVersion", "szFeatureVersion: %s", m_szFeatureVersion, szFeatureVersion,
                   cchBuffer);
}

bool CCAssembly::GetContextName(char* szContextName, size_t cchBuffer)
{
    return CopyOut("CCAssembly::GetContextName", "szContextName: %s", m_szContextName, szContextName, cchBuffer);
}

HMODULE CCAssembly::GetModuleHandleRaw()
{
    GetTrace().TraceMsg(TRACE_INFO_CC, "CCAssembly::GetModuleHandleRaw", "Enter",
                        "Method GetModuleHandleRaw has been called", "");
    // Any static of this module lies inside its image; the region's allocation base is the module handle.
    static const char s_cAnchor = 0;
    MEMORY_BASIC_INFORMATION mbi = {};
    HMODULE hReturn = nullptr;
    if (VirtualQuery(&s_cAnchor, &mbi, sizeof(mbi)) != 0)
        hReturn = static_cast<HMODULE>(mbi.AllocationBase);
    GetTrace().TraceMsg(TRACE_INFO_CC, "CCAssembly::GetModuleHandleRaw", "Leave",
                        "Method GetModuleHandleRaw has been left.", "hReturn: 0x%08X",
                        static_cast<unsigned>(reinterpret_cast<uintptr_t>(hReturn)));
    return hReturn;
}

std::string CCAssembly::MutexName() const
{
    char szName[kTextChars];
    snprintf(szName, sizeof(szName), "CCAssembly_PID_%8.8lx_%s_%s", GetCurrentProcessId(), m_szModuleFileName,
             m_szFileVersion);
    return szName;
}

bool CCAssembly::CriticalEnter()
{
    CCMethodTrace method(TRACE_INFO_CC, "CCAssembly::CriticalEnter", "has been called");
    return method.ReturnBool(NoThrow("CCAssembly::CriticalEnter", [&] {
        const std::string sName = MutexName();
        HANDLE hMutex = OpenMutexA(MUTEX_ALL_ACCESS, FALSE, sName.c_str());
        if (hMutex) {
            // Reported at Error although an existing mutex is expected here; it is used normally.
            GetTrace().TraceMsg(TRACE_ERROR, "CCAssembly::CriticalEnter", "Internal", "Error creating mutex",
                                "GetLastError: %d", static_cast<int>(GetLastError()));
        } else {
            hMutex = CreateMutexA(nullptr, FALSE, sName.c_str());
            if (!hMutex) {
                GetTrace().TraceMsg(TRACE_ERROR, "CCAssembly::CriticalEnter", "Internal", "Error creating mutex",
                                    "GetLastError: %d", static_cast<int>(GetLastError()));
                return false;
            }
        }
        // Ownership belongs to the mutex object, so the older handle can go once the new one is held.
        const DWORD dwWait = WaitForSingleObject(hMutex, INFINITE);
        if (m_hMutex)
            CloseHandle(m_hMutex);
        m_hMutex = hMutex;
        return dwWait == WAIT_OBJECT_0 || dwWait == WAIT_ABANDONED;
    }));
}

bool CCAssembly::CriticalLeave()
{
    CCMethodTrace method(TRACE_INFO_CC, "CCAssembly::CriticalLeave", "has been called");
    return method.ReturnBool(m_hMutex && ReleaseMutex(m_hMutex));
}

bool CCAssembly::InitializeCommon()
{
    CCMethodTrace method(TRACE_INFO_CC, "CCAssembly::InitializeCommon", "has been called");
    if (!InitializeFileNames()) {
        GetTrace().TraceMsg(TRACE_ERROR, "CCAssembly::InitializeCommon", "Internal", "InitializeFileNames failed", "");
        return method.ReturnBool(false);
    }
    if (!InitializeFileVersion()) {
        GetTrace().TraceMsg(TRACE_ERROR, "CCAssembly::InitializeCommon", "Internal", "InitializeFileVersion failed",
                            "");
        return method.ReturnBool(false);
    }
    if (!InitializeDependencyTablesPath()) {
        GetTrace().TraceMsg(TRACE_ERROR, "CCAssembly::InitializeCommon", "Internal",
                            "InitializeDependencyTablesPath failed", "");
        return method.ReturnBool(false);
    }
    return method.ReturnBool(true);
}

bool CCAssembly::InitializeFileNames()
{
    CCMethodTrace method(TRACE_INFO_CC, "CCAssembly::InitializeFileNames", "has been called");
    const DWORD cch = GetModuleFileNameA(GetModuleHandleRaw(), m_szModulePath, kTextChars);
    // A cut path (cch == size) would name another file.
    if (cch == 0 || cch >= kTextChars) {
        const DWORD dwError = cch == 0 ? GetLastError() : ERROR_INSUFFICIENT_BUFFER;
        m_szModulePath[0] = '\0';
        GetTrace().TraceMsg(TRACE_ERROR, "CCAssembly::InitializeFileNames", "Internal", "GetModuleFileName failed",
                            "LastErr=0x%8.8lx", dwError);
        return method.ReturnBool(false);
    }
    snprintf(m_szConfigFilePath, sizeof(m_szConfigFilePath), "%s%s", m_szModulePath, ".config.xml");

    WIN32_FIND_DATAA fd = {};
    HANDLE hFind = FindFirstFileA(m_szModulePath, &fd);
    if (hFind == INVALID_HANDLE_VALUE) {
        GetTrace().TraceMsg(TRACE_ERROR, "CCAssembly::InitializeFileNames", "Internal", "::FindFirstFile failed",
                            "LastErr=0x%8.8lx", GetLastError());
        return method.ReturnBool(false);
    }
    FindClose(hFind);
    CopyText(m_szModuleFileName, kTextChars, fd.cFileName);
    return method.ReturnBool(true);
}

bool CCAssembly::InitializeFileVersion()
{
    CCMethodTrace method(TRACE_INFO_CC, "CCAssembly::InitializeFileVersion", "has been called");
    return method.ReturnBool(NoThrow("CCAssembly::InitializeFileVersion", [&] {
        DWORD dwIgnored = 0;
        const DWORD cbInfo = GetFileVersionInfoSizeA(m_szModulePath, &dwIgnored);
        if (cbInfo == 0)
            return false;
        std::vector<char> info(cbInfo);
        if (!GetFileVersionInfoA(m_szModulePath, 0, cbInfo, info.data()))
            return false;

        char szStringTable[64];
        CopyText(szStringTable, sizeof(szStringTable), kDefaultStringTable);
        WORD* pwTranslation = nullptr;
        UINT cbTranslation = 0;
        if (VerQueryValueA(info.data(), "\\VarFileInfo\\Translation", reinterpret_cast<void**>(&pwTranslation),
                           &cbTranslation) &&
            pwTranslation && cbTranslation >= 2 * sizeof(WORD))
            snprintf(szStringTable, sizeof(szStringTable), "\\StringFileInfo\\%04x%04x\\", pwTranslation[0],
                     pwTranslation[1]);

        const std::string sQuery = std::string(szStringTable) + "FileVersion";
        char* szValue = nullptr;
        UINT cchValue = 0;
        if (!VerQueryValueA(info.data(), sQuery.c_str(), reinterpret_cast<void**>(&szValue), &cchValue) || !szValue) {
            GetTrace().TraceMsg(TRACE_ERROR, "CCAssembly::InitializeFileVersion", "Internal",
                                "VerQueryValue failed when retrieving the fileversion from the resources", "");
            return false;
        }
        // The value need not be terminated within its reported length.
        const std::string sValue(szValue, strnlen(szValue, cchValue));
        CopyText(m_szFileVersion, kTextChars, sValue.c_str());
        return true;
    }));
}

bool CCAssembly::InitializeDependencyTablesPath()
{
    CCMethodTrace method(TRACE_INFO_CC, "CCAssembly::InitializeDependencyTablesPath", "has been called");
    RegKey key;
    LONG lResult = RegOpenKeyExA(HKEY_LOCAL_MACHINE, kCommonKey, 0, KEY_QUERY_VALUE, key.GetAddress());
    // One spare byte keeps a value of exactly 260 unterminated bytes terminated.
    char szRaw[kTextChars + 1] = {};
    if (lResult == ERROR_SUCCESS) {
        DWORD cbRaw = kTextChars;
        lResult = RegQueryValueExA(key.Get(), "DependencyTables", nullptr, nullptr, reinterpret_cast<BYTE*>(szRaw),
                                   &cbRaw);
    }
    if (lResult == ERROR_SUCCESS) {
        const DWORD cchExpanded = ExpandEnvironmentStringsA(szRaw, m_szDependencyTablesPath, kTextChars);
        if (cchExpanded == 0 || cchExpanded > kTextChars)
            lResult = cchExpanded == 0 ? static_cast<LONG>(GetLastError()) : ERROR_INSUFFICIENT_BUFFER;
    }
    if (lResult != ERROR_SUCCESS) {
        m_szDependencyTablesPath[0] = '\0';
        GetTrace().TraceMsg(TRACE_ERROR, "CCAssembly::InitializeDependencyTablesPath", "Internal",
                            "Error accessing registry for getting deptables path", "Error: %d",
                            static_cast<int>(lResult));
        return method.ReturnBool(false);
    }
    return method.ReturnBool(true);
}

bool CCAssembly::InitializeFeature(const char* szFeatureName, const char* szFeatureVersion, const char* szContextName)
{
    CCMethodTrace method(TRACE_INFO_CC, "CCAssembly::InitializeFeature", "has been called",
                         "szFeatureName: %s, szFeatureVersion: %s, szContextName: %s", OrEmpty(szFeatureName),
                         OrEmpty(szFeatureVersion), OrEmpty(szContextName));
    CopyText(m_szFeatureName, kTextChars, szFeatureName);
    CopyText(m_szFeatureVersion, kTextChars, szFeatureVersion);
    CopyText(m_szContextName, kTextChars, szContextName);
    if (!InitializeFeatureList()) {
        GetTrace().TraceMsg(TRACE_ERROR, "CCAssembly::InitializeFeature", "Internal", "InitializeFeatureList failed",
                            "");
        return method.ReturnBool(false);
    }
    m_bInitialized = true;
    return method.ReturnBool(true);
}

bool CCAssembly::ReadComponentRoot()
{
    RegKey key;
    LONG lResult = RegOpenKeyExA(HKEY_LOCAL_MACHINE, kCommonKey, 0, KEY_QUERY_VALUE, key.GetAddress());
    char szRaw[kTextChars + 1] = {};
    if (lResult == ERROR_SUCCESS) {
        DWORD cbRaw = kTextChars;
        lResult =
            RegQueryValueExA(key.Get(), "ComponentRoot", nullptr, nullptr, reinterpret_cast<BYTE*>(szRaw), &cbRaw);
    }
    if (lResult != ERROR_SUCCESS) {
        m_szComponentRoot[0] = '\0';
        GetTrace().TraceMsg(TRACE_WARNING, "CCAssembly::InitializeFeatureList", "Internal",
                            "Error accessing registry for getting GAC root", "Error: %d", static_cast<int>(lResult));
        return false;
    }
    CopyText(m_szComponentRoot, kTextChars, szRaw);
    return true;
}

bool CCAssembly::InitializeFeatureList()
{
    constexpr char kName[] = "CCAssembly::InitializeFeatureList";
    CCMethodTrace method(TRACE_INFO_CC, kName, "has been called");
    return method.ReturnBool(NoThrow(kName, [&] {
        CCQuillTrace& trace = GetTrace();
        char szTablePath[kTextChars];
        const int cchPath = snprintf(szTablePath, sizeof(szTablePath), "%s\\%s_%s.xml", m_szDependencyTablesPath,
                                     m_szFeatureName, m_szFeatureVersion);
        if (cchPath < 0 || static_cast<size_t>(cchPath) >= sizeof(szTablePath)) {
            // A cut path could name an unrelated file.
            trace.TraceMsg(TRACE_ERROR, kName, "Internal", "Error loading dependency table",
                           "path='%s', Line=%d, Col=%d, reason='%s'", szTablePath, 0, 0, "path too long");
            return false;
        }

        ComPtr<IXMLDOMDocument2> pDocument;
        CLSID clsid = {};
        HRESULT hr = CLSIDFromProgID(kDomProgId, &clsid);
        if (SUCCEEDED(hr))
            hr = CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, kIID_IXMLDOMDocument2,
                                  reinterpret_cast<void**>(pDocument.GetAddressOf()));
        if (FAILED(hr)) {
            trace.TraceMsg(TRACE_ERROR, kName, "Internal", "Failed to create MSXML2.Dom object to parse XML.",
                           "hr: 0x%08X, '%s'", static_cast<unsigned>(hr), GetErrorText(static_cast<unsigned long>(hr)));
            return false;
        }
        pDocument->put_async(VARIANT_FALSE);
        // msxml3 selects with XSLPattern unless told otherwise.
        CCBstr bstrProperty(L"SelectionLanguage");
        CCVariant varXPath;
        SetBstr(varXPath, L"XPath");
        pDocument->setProperty(bstrProperty.Get(), varXPath.Get());

        CCVariant varSource;
        SetBstr(varSource, Widen(szTablePath).c_str());
        VARIANT_BOOL bLoaded = VARIANT_FALSE;
        hr = pDocument->load(varSource.Get(), &bLoaded);
        if (hr != S_OK || bLoaded != VARIANT_TRUE) {
            long lLine = 0;
            long lColumn = 0;
            CCBstr bstrReason;
            ComPtr<IXMLDOMParseError> pError;
            if (SUCCEEDED(pDocument->get_parseError(pError.GetAddressOf())) && pError) {
                pError->get_line(&lLine);
                pError->get_linepos(&lColumn);
                pError->get_reason(bstrReason.GetAddress());
            }
            std::string sReason = Narrow(bstrReason.Get());
            // The parser ends its reason with a line break, which would split the trace line.
            while (!sReason.empty() && (sReason.back() == '\n' || sReason.back() == '\r'))
                sReason.pop_back();
            trace.TraceMsg(TRACE_ERROR, kName, "Internal", "Error loading dependency table",
                           "path='%s', Line=%d, Col=%d, reason='%s'", szTablePath, static_cast<int>(lLine),
                           static_cast<int>(lColumn), sReason.c_str());
            return false;
        }

        ComPtr<IXMLDOMNode> pFeature = SelectSingleNode(
            pDocument.Get(),
            Format("//feature[(@name = \"%s\") and (@version= \"%s\")]", m_szFeatureName, m_szFeatureVersion));

        ReadComponentRoot();
        if (pFeature) {
            const std::string sRootFolder = AttributeText(pFeature.Get(), L"rootFolder");
            if (!sRootFolder.empty())
                CopyText(m_szComponentRoot, kTextChars, sRootFolder.c_str());
        }

        ComPtr<IXMLDOMNode> pIdentity;
        if (pFeature)
            pIdentity = SelectSingleNode(pFeature.Get(),
                                         Format("context[@name = \"%s\"]/assemblyIdentity[(@name = \"%s\") and "
                                                "((@version= \"%s\") or (@version= \"*\"))]",
                                                m_szContextName, m_szModuleFileName, m_szFileVersion));
        if (!pIdentity) {
            trace.TraceMsg(TRACE_ERROR, kName, "Internal", "AssemblyIdentity node not found for current assembly.",
                           "ContextName: %s, AssemblyIdentity: %s, Version: %s", m_szContextName, m_szModuleFileName,
                           m_szFileVersion);
            return false;
        }

        // Built aside so that a failure half-way leaves the earlier maps intact.
        EntryMap comEntries;
        EntryMap libraryEntries;
        ComPtr<IXMLDOMNodeList> pDependencies;
        CCBstr bstrDependencies(L"dependencies/assemblyIdentity");
        if (pIdentity->selectNodes(bstrDependencies.Get(), pDependencies.GetAddressOf()) == S_OK && pDependencies) {
            ComPtr<IXMLDOMNode> pEntry;
            while (pDependencies->nextNode(pEntry.ReleaseAndGetAddressOf()) == S_OK && pEntry) {
                CCDependencyRecord record = {};
                CopyText(record.szName, kTextChars, AttributeText(pEntry.Get(), L"name").c_str());
                CopyText(record.szVersion, kTextChars, AttributeText(pEntry.Get(), L"version").c_str());
                CopyText(record.szProgID, kTextChars, AttributeText(pEntry.Get(), L"progID").c_str());
                CopyText(record.szVersionIndependentProgID, kTextChars,
                         AttributeText(pEntry.Get(), L"versionIndependentProgID").c_str());
                snprintf(record.szFolder, sizeof(record.szFolder), "%s\\%s\\%s\\%s", m_szComponentRoot, record.szName,
                         record.szVersion, record.szName);
                if (record.szProgID[0] && record.szVersionIndependentProgID[0]) {
                    trace.TraceMsg(TRACE_VERBOSE_CC, kName, "Internal", "Com entry found",
                                   "caller %s V%s: name %s, version %s, progId %s, viProgId %s", m_szModuleFileName,
                                   m_szFileVersion, record.szName, record.szVersion, record.szProgID,
                                   record.szVersionIndependentProgID);
                    comEntries[record.szVersionIndependentProgID] = record;
                } else {
                    trace.TraceMsg(TRACE_VERBOSE_CC, kName, "Internal", "Win32 dll entry found",
                                   "caller %s V%s: name %s, version %s", m_szModuleFileName, m_szFileVersion,
                                   record.szName, record.szVersion);
                    libraryEntries[record.szName] = record;
                }
            }
        }
        m_ComEntries.swap(comEntries);
        m_LibraryEntries.swap(libraryEntries);
        return true;
    }));
}
