// The registry script runner, against a scratch key that stands in for HKEY_CLASSES_ROOT.
#include "MoradelModule.h"
#include "TempDir.h"

#include "module/CCRegistrar.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>

namespace {

constexpr wchar_t kScratch[] = L"Software\\MoradelRegistrarTest";
constexpr HRESULT kScriptError = HRESULT_FROM_WIN32(ERROR_BAD_FORMAT);

class RegistrarTest : public testing::Test {
protected:
    void SetUp() override
    {
        RegDeleteTreeW(HKEY_CURRENT_USER, kScratch);
        ASSERT_EQ(RegCreateKeyExW(HKEY_CURRENT_USER, kScratch, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &m_hRoot, nullptr),
                  ERROR_SUCCESS);
        m_registrar.MapRootKey(HKEY_CLASSES_ROOT, m_hRoot);
    }
    void TearDown() override
    {
        RegCloseKey(m_hRoot);
        RegDeleteTreeW(HKEY_CURRENT_USER, kScratch);
    }

    bool Exists(const std::wstring& wsKey) const
    {
        HKEY hKey = nullptr;
        if (RegOpenKeyExW(m_hRoot, wsKey.c_str(), 0, KEY_READ, &hKey) != ERROR_SUCCESS)
            return false;
        RegCloseKey(hKey);
        return true;
    }
    std::optional<std::wstring> Text(const std::wstring& wsKey, const wchar_t* wszName = nullptr) const
    {
        wchar_t wszData[256] = {};
        DWORD cbData = sizeof(wszData) - sizeof(wchar_t);
        DWORD dwType = 0;
        if (RegGetValueW(m_hRoot, wsKey.c_str(), wszName, RRF_RT_ANY, &dwType, wszData, &cbData) != ERROR_SUCCESS ||
            dwType != REG_SZ)
            return std::nullopt;
        return std::wstring(wszData);
    }
    std::optional<DWORD> Dword(const std::wstring& wsKey, const wchar_t* wszName) const
    {
        DWORD dwData = 0;
        DWORD cbData = sizeof(dwData);
        if (RegGetValueW(m_hRoot, wsKey.c_str(), wszName, RRF_RT_REG_DWORD, nullptr, &dwData, &cbData) != ERROR_SUCCESS)
            return std::nullopt;
        return dwData;
    }
    void MakeKey(const std::wstring& wsKey, const wchar_t* wszValueName = nullptr)
    {
        HKEY hKey = nullptr;
        ASSERT_EQ(RegCreateKeyExW(m_hRoot, wsKey.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &hKey, nullptr),
                  ERROR_SUCCESS);
        if (wszValueName)
            RegSetValueExW(hKey, wszValueName, 0, REG_SZ, reinterpret_cast<const BYTE*>(L"x"), 4);
        RegCloseKey(hKey);
    }

    HKEY m_hRoot = nullptr;
    CCRegistrar m_registrar;
};

TEST_F(RegistrarTest, TheModulesAppIdScriptKeepsTheAppIdKey)
{
    MoradelModule module;
    ASSERT_TRUE(module.Loaded());
    MakeKey(L"AppID\\{11111111-2222-3333-4444-555555555555}");
    m_registrar.AddReplacement(L"APPID", L"{0304681A-1D45-4A5E-930F-F14977BCE602}");

    ASSERT_EQ(m_registrar.RunResource(module.Handle(), 101, L"REGISTRY", true), S_OK) << Narrow(m_registrar.GetError());
    EXPECT_EQ(Text(L"AppID\\{0304681A-1D45-4A5E-930F-F14977BCE602}"), L"Moradeldll");
    EXPECT_EQ(Text(L"AppID\\Moradel.dll.DLL", L"AppID"), L"{0304681A-1D45-4A5E-930F-F14977BCE602}");

    ASSERT_EQ(m_registrar.RunResource(module.Handle(), 101, L"REGISTRY", false), S_OK);
    EXPECT_FALSE(Exists(L"AppID\\{0304681A-1D45-4A5E-930F-F14977BCE602}"));
    EXPECT_FALSE(Exists(L"AppID\\Moradel.dll.DLL"));
    EXPECT_TRUE(Exists(L"AppID"));
    EXPECT_TRUE(Exists(L"AppID\\{11111111-2222-3333-4444-555555555555}")) << "another module's entry";

    // Unregistering twice is no error.
    EXPECT_EQ(m_registrar.RunResource(module.Handle(), 101, L"REGISTRY", false), S_OK);
    EXPECT_EQ(m_registrar.RunResource(module.Handle(), 999, L"REGISTRY", true),
              HRESULT_FROM_WIN32(ERROR_RESOURCE_NAME_NOT_FOUND));
}

TEST_F(RegistrarTest, FlagsValuesAndQuoting)
{
    MakeKey(L"Forced\\Stale");
    MakeKey(L"Plain\\Kept");
    MakeKey(L"Doomed\\Child");
    const std::wstring wsScript = LR"(
HKCR
{
    ForceRemove Forced = s 'fresh'
    Plain
    {
        val Count = d '42'
        val Hex = d '0x10'
        'It''s 100%%' = s '%WHO%'
    }
    Delete Doomed
    NoRemove Shared
    {
        val Owned = s 'ours'
        Inner = s 'inner'
    }
}
)";
    m_registrar.AddReplacement(L"WHO", L"me");
    ASSERT_EQ(m_registrar.RegisterScript(wsScript), S_OK) << Narrow(m_registrar.GetError());
    EXPECT_EQ(Text(L"Forced"), L"fresh");
    EXPECT_FALSE(Exists(L"Forced\\Stale")) << "ForceRemove starts from nothing";
    EXPECT_TRUE(Exists(L"Plain\\Kept")) << "a plain key keeps what it had";
    EXPECT_EQ(Dword(L"Plain", L"Count"), 42u);
    EXPECT_EQ(Dword(L"Plain", L"Hex"), 16u);
    EXPECT_EQ(Text(L"Plain\\It's 100%"), L"me");
    EXPECT_FALSE(Exists(L"Doomed"));
    EXPECT_EQ(Text(L"Shared", L"Owned"), L"ours");
    MakeKey(L"Shared", L"Foreign");

    ASSERT_EQ(m_registrar.UnregisterScript(wsScript), S_OK) << Narrow(m_registrar.GetError());
    EXPECT_FALSE(Exists(L"Forced"));
    EXPECT_FALSE(Exists(L"Plain")) << "removed with everything inside";
    EXPECT_TRUE(Exists(L"Shared"));
    EXPECT_FALSE(Text(L"Shared", L"Owned").has_value()) << "the script's value goes";
    EXPECT_TRUE(Text(L"Shared", L"Foreign").has_value()) << "a foreign value stays";
    EXPECT_FALSE(Exists(L"Shared\\Inner"));
}

TEST_F(RegistrarTest, BadScriptsChangeNothing)
{
    const struct {
        const char* szCase;
        const wchar_t* wszScript;
    } rows[] = {
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
        EXPECT_EQ(m_registrar.RegisterScript(row.wszScript), kScriptError) << row.szCase;
        EXPECT_FALSE(m_registrar.GetError().empty()) << row.szCase;
        EXPECT_FALSE(Exists(L"A")) << row.szCase;
    }
}

}  // namespace
