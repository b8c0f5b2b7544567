// The registry script runner against a scratch key that stands in for HKEY_CLASSES_ROOT, and the
// module's self-registration in the prefix, which it leaves registered as the other tests expect.
#include "MoradelModule.h"
#include "TempDir.h"

#include "module/CCRegistrar.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <optional>
#include <string>

using Microsoft::WRL::ComPtr;

namespace {

bool Exists(HKEY hRoot, const std::wstring& wsKey)
{
    HKEY hKey = nullptr;
    if (RegOpenKeyExW(hRoot, wsKey.c_str(), 0, KEY_READ, &hKey) != ERROR_SUCCESS)
        return false;
    RegCloseKey(hKey);
    return true;
}

// A REG_SZ value as it is, a REG_DWORD as "dword:<decimal>"; nullopt when absent.
std::optional<std::wstring> Value(HKEY hRoot, const std::wstring& wsKey, const wchar_t* wszName = nullptr)
{
    wchar_t wszData[512] = {};
    DWORD cbData = sizeof(wszData) - sizeof(wchar_t), dwType = 0, dwValue = 0;
    if (RegGetValueW(hRoot, wsKey.c_str(), wszName, RRF_RT_ANY, &dwType, wszData, &cbData) != ERROR_SUCCESS)
        return std::nullopt;
    memcpy(&dwValue, wszData, sizeof(dwValue));
    return dwType == REG_DWORD ? L"dword:" + std::to_wstring(dwValue)
                               : dwType == REG_SZ ? std::wstring(wszData) : L"type " + std::to_wstring(dwType);
}

class RegistrarTest : public testing::Test {
protected:
    void SetUp() override
    {
        RegDeleteTreeW(HKEY_CURRENT_USER, kScratch);
        ASSERT_EQ(RegCreateKeyW(HKEY_CURRENT_USER, kScratch, &m_hRoot), ERROR_SUCCESS);
        m_registrar.MapRootKey(HKEY_CLASSES_ROOT, m_hRoot);
    }
    void TearDown() override
    {
        RegCloseKey(m_hRoot);
        RegDeleteTreeW(HKEY_CURRENT_USER, kScratch);
    }
    // Creates the key (and those above it) with this value.
    void MakeKey(const wchar_t* wszKey, const wchar_t* wszValueName = nullptr)
    {
        ASSERT_EQ(RegSetKeyValueW(m_hRoot, wszKey, wszValueName, REG_SZ, L"x", 4), ERROR_SUCCESS) << Narrow(wszKey);
    }

    static constexpr wchar_t kScratch[] = L"Software\\MoradelRegistrarTest";
    HKEY m_hRoot = nullptr;
    CCRegistrar m_registrar;
};

TEST_F(RegistrarTest, FlagsValuesAndQuoting)
{
    for (const wchar_t* wszKey : {L"Forced\\Stale", L"Plain\\Kept", L"Doomed\\Child"})
        MakeKey(wszKey);
    const std::wstring wsScript = L"HKCR { ForceRemove Forced = s 'fresh'\n"
                                  L"  Plain { val Count = d '42' val Hex = d '0x10' 'It''s 100%%' = s '%WHO%' }\n"
                                  L"  Delete Doomed NoRemove Shared { val Owned = s 'ours' Inner = s 'inner' } }";
    m_registrar.AddReplacement(L"WHO", L"me");
    ASSERT_EQ(m_registrar.RegisterScript(wsScript), S_OK) << Narrow(m_registrar.GetError());
    EXPECT_EQ(Value(m_hRoot, L"Forced"), L"fresh");
    EXPECT_FALSE(Exists(m_hRoot, L"Forced\\Stale")) << "ForceRemove starts from nothing";
    EXPECT_TRUE(Exists(m_hRoot, L"Plain\\Kept")) << "a plain key keeps what it had";
    EXPECT_EQ(Value(m_hRoot, L"Plain", L"Count"), L"dword:42");
    EXPECT_EQ(Value(m_hRoot, L"Plain", L"Hex"), L"dword:16");
    EXPECT_EQ(Value(m_hRoot, L"Plain\\It's 100%"), L"me");
    EXPECT_FALSE(Exists(m_hRoot, L"Doomed"));
    EXPECT_EQ(Value(m_hRoot, L"Shared", L"Owned"), L"ours");
    MakeKey(L"Shared", L"Foreign");
    MakeKey(L"Shared\\ForeignKey");
    ASSERT_EQ(m_registrar.UnregisterScript(wsScript), S_OK) << Narrow(m_registrar.GetError());
    EXPECT_FALSE(Exists(m_hRoot, L"Forced"));
    EXPECT_FALSE(Exists(m_hRoot, L"Plain")) << "removed with everything inside";
    EXPECT_FALSE(Value(m_hRoot, L"Shared", L"Owned").has_value()) << "the script's value goes";
    EXPECT_FALSE(Exists(m_hRoot, L"Shared\\Inner"));
    EXPECT_TRUE(Value(m_hRoot, L"Shared", L"Foreign").has_value()) << "a foreign value stays";
    EXPECT_TRUE(Exists(m_hRoot, L"Shared\\ForeignKey")) << "a foreign key stays";
}

TEST_F(RegistrarTest, BadScriptsChangeNothing)
{
    const struct { const char* szCase; const wchar_t* wszScript; } rows[] = {
        {"unknown root", L"HKXX { A }"},
        {"missing brace", L"HKCR { A { B }"},
        {"unsupported type", L"HKCR { A = x 'v' }"},
        {"not a number", L"HKCR { A { val N = d 'abc' } }"},
        {"unterminated text", L"HKCR { A = s 'open }"},
        {"unknown replacement", L"HKCR { '%NOPE%' }"},
        {"unterminated replacement", L"HKCR { '%APPID' }"},
        {"value at the root", L"HKCR { val V = s 'x' }"},
        {"empty name", L"HKCR { '' = s 'x' }"},
    };
    m_registrar.AddReplacement(L"APPID", L"{x}");
    for (const auto& row : rows) {
        EXPECT_EQ(m_registrar.RegisterScript(row.wszScript), HRESULT_FROM_WIN32(ERROR_BAD_FORMAT)) << row.szCase;
        EXPECT_FALSE(m_registrar.GetError().empty()) << row.szCase;
        EXPECT_FALSE(Exists(m_hRoot, L"A")) << row.szCase;
    }
    EXPECT_EQ(m_registrar.RunResource(GetModuleHandleW(nullptr), 999, L"REGISTRY", true),
              HRESULT_FROM_WIN32(ERROR_RESOURCE_NAME_NOT_FOUND));
}

// regsvr32 itself runs in the "moradel" fixture, LateBound.js creates the handler by ProgID; here the
// exports are called directly. Registration runs under a neutral locale and gives the caller's back.
TEST(ServerRegistrationTest, RegistrationReplacesStaleKeysAndUnregistrationRemovesEverything)
{
    ASSERT_TRUE(SUCCEEDED(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED)));
    auto pModule = std::make_unique<MoradelModule>();
    ASSERT_TRUE(pModule->Loaded());
    auto CreateHandler = [] {
        ComPtr<INotifications> pHandler;
        return CoCreateInstance(CLSID_NotificationHandler, nullptr, CLSCTX_INPROC_SERVER, IID_INotifications,
                                reinterpret_cast<void**>(pHandler.GetAddressOf()));
    };
    const std::wstring wsClsid = L"{285D8D08-587F-45E5-BCAB-750CBDB61238}";
    const std::wstring wsLibId = L"{265F29C8-EB4D-4E2F-9344-EB7F3EAF49E3}";
    const std::wstring wsAppId = L"{0304681A-1D45-4A5E-930F-F14977BCE602}";
    const std::wstring wsProgId = L"Moradel.NotificationHandler.1.06", wsViProgId = L"Moradel.NotificationHandler";
    const std::wstring wsClassKey = L"CLSID\\" + wsClsid;
    EXPECT_EQ(RegSetKeyValueW(HKEY_CLASSES_ROOT, (wsClassKey + L"\\LocalServer32").c_str(), nullptr, REG_SZ, L"x", 4),
              ERROR_SUCCESS);
    const LCID lcidSaved = GetThreadLocale();
    const LCID lcidCaller = MAKELCID(MAKELANGID(LANG_GERMAN, SUBLANG_GERMAN), SORT_DEFAULT);
    EXPECT_TRUE(SetThreadLocale(lcidCaller));
    EXPECT_EQ(pModule->Register(), S_OK);
    EXPECT_EQ(GetThreadLocale(), lcidCaller);
    EXPECT_FALSE(Exists(HKEY_CLASSES_ROOT, wsClassKey + L"\\LocalServer32"));
    const struct { std::wstring wsKey; const wchar_t* wszName; std::wstring wsExpected; } rows[] = {
        {wsViProgId + L"\\CurVer", nullptr, wsProgId},
        {wsClassKey + L"\\ProgID", nullptr, wsProgId},
        {wsClassKey + L"\\InprocServer32", L"ThreadingModel", L"both"},
        {wsClassKey + L"\\TypeLib", nullptr, wsLibId},
        {L"AppID\\" + wsAppId, nullptr, L"Moradeldll"},
        {L"AppID\\Moradel.dll.DLL", L"AppID", wsAppId},
        {L"TypeLib\\" + wsLibId + L"\\1.0", nullptr, L"Moradel.dll 1.0 Type Library"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(Value(HKEY_CLASSES_ROOT, row.wsKey, row.wszName), row.wsExpected) << Narrow(row.wsKey);
    wchar_t wszPath[MAX_PATH] = {};
    GetModuleFileNameW(pModule->Handle(), wszPath, MAX_PATH);
    EXPECT_EQ(_wcsicmp(Value(HKEY_CLASSES_ROOT, wsClassKey + L"\\InprocServer32").value_or(L"").c_str(), wszPath), 0);
    CLSID clsid = {};
    EXPECT_TRUE(CLSIDFromProgID(wsViProgId.c_str(), &clsid) == S_OK && IsEqualCLSID(clsid, CLSID_NotificationHandler));
    EXPECT_EQ(CreateHandler(), S_OK);
    EXPECT_EQ(pModule->Unregister(), S_OK);
    EXPECT_EQ(GetThreadLocale(), lcidCaller);
    for (const std::wstring& wsKey : {wsProgId, wsViProgId, wsClassKey, L"AppID\\" + wsAppId,
                                      std::wstring(L"AppID\\Moradel.dll.DLL"), L"TypeLib\\" + wsLibId})
        EXPECT_FALSE(Exists(HKEY_CLASSES_ROOT, wsKey)) << Narrow(wsKey);
    EXPECT_TRUE(Exists(HKEY_CLASSES_ROOT, L"AppID")) << "the AppID key itself is never removed";
    EXPECT_EQ(CreateHandler(), REGDB_E_CLASSNOTREG);
    EXPECT_EQ(pModule->Unregister(), S_OK) << "unregistering twice is no error";
    SetThreadLocale(lcidSaved);
    EXPECT_EQ(pModule->Register(), S_OK);
    pModule.reset();
    CoUninitialize();
}

}  // namespace
