// Self-registration of Moradel.dll through regsvr32 and through the exports. Leaves the module
// registered, as the other tests of the prefix expect.
#include "MoradelModule.h"
#include "TempDir.h"

#include "access/ComHolders.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>

using Microsoft::WRL::ComPtr;

namespace {

constexpr wchar_t kClsid[] = L"{285D8D08-587F-45E5-BCAB-750CBDB61238}";
constexpr wchar_t kLibId[] = L"{265F29C8-EB4D-4E2F-9344-EB7F3EAF49E3}";
constexpr wchar_t kAppId[] = L"{0304681A-1D45-4A5E-930F-F14977BCE602}";
constexpr wchar_t kProgId[] = L"Moradel.NotificationHandler.1.06";
constexpr wchar_t kViProgId[] = L"Moradel.NotificationHandler";

std::optional<std::wstring> ClassesText(const std::wstring& wsKey, const wchar_t* wszName = nullptr)
{
    wchar_t wszData[512] = {};
    DWORD cbData = sizeof(wszData) - sizeof(wchar_t);
    if (RegGetValueW(HKEY_CLASSES_ROOT, wsKey.c_str(), wszName, RRF_RT_REG_SZ, nullptr, wszData, &cbData) !=
        ERROR_SUCCESS)
        return std::nullopt;
    return std::wstring(wszData);
}

bool ClassesKeyExists(const std::wstring& wsKey)
{
    HKEY hKey = nullptr;
    if (RegOpenKeyExW(HKEY_CLASSES_ROOT, wsKey.c_str(), 0, KEY_READ, &hKey) != ERROR_SUCCESS)
        return false;
    RegCloseKey(hKey);
    return true;
}

std::wstring Lower(std::wstring ws)
{
    for (wchar_t& ch : ws)
        ch = static_cast<wchar_t>(towlower(ch));
    return ws;
}

// Exit code of regsvr32 with these arguments.
DWORD RunRegsvr32(const std::wstring& wsArguments)
{
    std::wstring wsCommand = L"regsvr32.exe " + wsArguments;
    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION process = {};
    if (!CreateProcessW(nullptr, wsCommand.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &process))
        return 0xFFFFFFFF;
    WaitForSingleObject(process.hProcess, 60000);
    DWORD dwExit = 0xFFFFFFFF;
    GetExitCodeProcess(process.hProcess, &dwExit);
    CloseHandle(process.hThread);
    CloseHandle(process.hProcess);
    return dwExit;
}

class ServerRegistrationTest : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(SUCCEEDED(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED)));
        m_pModule = std::make_unique<MoradelModule>();
        ASSERT_TRUE(m_pModule->Loaded());
        wchar_t wszPath[MAX_PATH] = {};
        GetModuleFileNameW(m_pModule->Handle(), wszPath, MAX_PATH);
        m_wsPath = wszPath;
    }
    void TearDown() override
    {
        EXPECT_EQ(m_pModule->Register(), S_OK);
        m_pModule.reset();
        CoUninitialize();
    }

    void ExpectRegistered()
    {
        const std::wstring wsClassKey = std::wstring(L"CLSID\\") + kClsid;
        const struct {
            std::wstring wsKey;
            const wchar_t* wszName;
            std::wstring wsExpected;
        } rows[] = {
            {kProgId, nullptr, L"CNotificationHandler Object"},
            {std::wstring(kProgId) + L"\\CLSID", nullptr, kClsid},
            {kViProgId, nullptr, L"CNotificationHandler Object"},
            {std::wstring(kViProgId) + L"\\CLSID", nullptr, kClsid},
            {std::wstring(kViProgId) + L"\\CurVer", nullptr, kProgId},
            {wsClassKey, nullptr, L"CNotificationHandler Object"},
            {wsClassKey + L"\\ProgID", nullptr, kProgId},
            {wsClassKey + L"\\VersionIndependentProgID", nullptr, kViProgId},
            {wsClassKey + L"\\InprocServer32", L"ThreadingModel", L"both"},
            {wsClassKey + L"\\TypeLib", nullptr, kLibId},
            {std::wstring(L"AppID\\") + kAppId, nullptr, L"Moradeldll"},
            {L"AppID\\Moradel.dll.DLL", L"AppID", kAppId},
            {std::wstring(L"TypeLib\\") + kLibId + L"\\1.0", nullptr, L"Moradel.dll 1.0 Type Library"},
        };
        for (const auto& row : rows)
            EXPECT_EQ(ClassesText(row.wsKey, row.wszName), row.wsExpected) << Narrow(row.wsKey);
        EXPECT_EQ(Lower(ClassesText(wsClassKey + L"\\InprocServer32").value_or(L"")), Lower(m_wsPath));

        CLSID clsid = {};
        EXPECT_EQ(CLSIDFromProgID(kViProgId, &clsid), S_OK);
        EXPECT_TRUE(IsEqualCLSID(clsid, CLSID_NotificationHandler));
        ComPtr<INotifications> pHandler;
        EXPECT_EQ(CoCreateInstance(CLSID_NotificationHandler, nullptr, CLSCTX_INPROC_SERVER, IID_INotifications,
                                   reinterpret_cast<void**>(pHandler.GetAddressOf())),
                  S_OK);
    }
    void ExpectUnregistered()
    {
        for (const std::wstring& wsKey :
             {std::wstring(kProgId), std::wstring(kViProgId), std::wstring(L"CLSID\\") + kClsid,
              std::wstring(L"AppID\\") + kAppId, std::wstring(L"AppID\\Moradel.dll.DLL"),
              std::wstring(L"TypeLib\\") + kLibId})
            EXPECT_FALSE(ClassesKeyExists(wsKey)) << Narrow(wsKey);
        EXPECT_TRUE(ClassesKeyExists(L"AppID")) << "the AppID key itself is never removed";
        ComPtr<INotifications> pHandler;
        EXPECT_EQ(CoCreateInstance(CLSID_NotificationHandler, nullptr, CLSCTX_INPROC_SERVER, IID_INotifications,
                                   reinterpret_cast<void**>(pHandler.GetAddressOf())),
                  REGDB_E_CLASSNOTREG);
    }

    std::unique_ptr<MoradelModule> m_pModule;
    std::wstring m_wsPath;
};

TEST_F(ServerRegistrationTest, Regsvr32RegistersAndUnregisters)
{
    const std::wstring wsQuoted = L"\"" + m_wsPath + L"\"";
    ASSERT_EQ(RunRegsvr32(L"/s " + wsQuoted), 0u);
    ExpectRegistered();
    ASSERT_EQ(RunRegsvr32(L"/s /u " + wsQuoted), 0u);
    ExpectUnregistered();
    // Unregistering what is not registered is no failure.
    EXPECT_EQ(RunRegsvr32(L"/s /u " + wsQuoted), 0u);
    ASSERT_EQ(RunRegsvr32(L"/s " + wsQuoted), 0u);
    ExpectRegistered();
}

TEST_F(ServerRegistrationTest, RegistrationReplacesStaleKeysAndKeepsTheThreadLocale)
{
    HKEY hStale = nullptr;
    ASSERT_EQ(RegCreateKeyExW(HKEY_CLASSES_ROOT, (std::wstring(L"CLSID\\") + kClsid + L"\\LocalServer32").c_str(), 0,
                              nullptr, 0, KEY_ALL_ACCESS, nullptr, &hStale, nullptr),
              ERROR_SUCCESS);
    RegCloseKey(hStale);
    const LCID lcidSaved = GetThreadLocale();
    const LCID lcidCaller = MAKELCID(MAKELANGID(LANG_GERMAN, SUBLANG_GERMAN), SORT_DEFAULT);
    ASSERT_TRUE(SetThreadLocale(lcidCaller));

    EXPECT_EQ(m_pModule->Register(), S_OK);
    EXPECT_EQ(GetThreadLocale(), lcidCaller);
    EXPECT_FALSE(ClassesKeyExists(std::wstring(L"CLSID\\") + kClsid + L"\\LocalServer32"));
    ExpectRegistered();

    EXPECT_EQ(m_pModule->Unregister(), S_OK);
    EXPECT_EQ(GetThreadLocale(), lcidCaller);
    ExpectUnregistered();
    SetThreadLocale(lcidSaved);
}

}  // namespace
