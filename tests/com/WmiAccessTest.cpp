// CCWMIAccess against CimStore: connection rules, context, enumerations, association walks,
// value maps and property enumeration.
#include "access/CCWMIAccess.h"

#include "CimStoreTest.h"
#include "GlobalTraceLog.h"
#include "TempDir.h"

#include "access/ComHolders.h"

#include <set>

namespace {

constexpr char kNamespace[] = "root\\accesstest";

class WmiAccessTest : public CimStoreTest {
protected:
    void SetUp() override
    {
        CimStoreTest::SetUp();
        LoadFixture(L"access\\access.mof");
    }
    static std::string Text(const VARIANT& v)
    {
        return V_VT(&v) == VT_BSTR && V_BSTR(&v) ? Narrow(V_BSTR(&v)) : std::string("<not text>");
    }
    static std::string Property(CCWMIAccess& access, const char* szName)
    {
        CCVariant value;
        if (FAILED(access.GetProperty(szName, value.GetAddress(), false, 0)))
            return "<error>";
        return Text(value.Get());
    }
    // The mapped text of the Level (or another) property of item szItem.
    HRESULT Mapped(const char* szItem, const char* szProperty, long lOffset, std::string& sText)
    {
        CCWMIAccess access;
        HRESULT hr = access.ConnectToNamespace(kNamespace, 0, "MS_409");
        if (FAILED(hr))
            return hr;
        // Items named n... are of the class whose value maps hold numbers.
        const std::string sClass = szItem[0] == 'n' ? "Access_NumberMaps" : "Access_Item";
        hr = access.GetObject((sClass + ".Name=\"" + szItem + "\"").c_str());
        if (FAILED(hr))
            return hr;
        CCVariant value;
        hr = access.GetProperty(szProperty, value.GetAddress(), true, lOffset);
        sText = SUCCEEDED(hr) ? Text(value.Get()) : std::string();
        return hr;
    }
};

TEST_F(WmiAccessTest, ConnectionRules)
{
    CCWMIAccess access;
    EXPECT_FALSE(access.AlreadyConnectedToNamespace(kNamespace));
    ASSERT_EQ(access.ConnectToNamespace(kNamespace, 0, nullptr), S_OK);
    EXPECT_STREQ(access.GetNamespaceName(), kNamespace);
    IWbemServices* pFirst = access;
    EXPECT_TRUE(access.AlreadyConnectedToNamespace("ROOT\\ACCESSTEST"));
    EXPECT_EQ(access.ConnectToNamespace("ROOT\\AccessTest", -1, nullptr), WBEM_S_ALREADY_EXISTS);
    EXPECT_EQ(static_cast<IWbemServices*>(access), pFirst);

    LoadMof(L"#pragma namespace(\"\\\\\\\\.\\\\root\\\\other\")\nclass Other_Thing { [key] string Name; };\n"
            L"instance of Other_Thing { Name = \"x\"; };\n");
    ASSERT_EQ(access.ConnectToNamespace("root\\other", 0, nullptr), S_OK);
    EXPECT_STREQ(access.GetNamespaceName(), "root\\other");
    EXPECT_EQ(access.GetObject("Other_Thing.Name=\"x\""), S_OK);
    EXPECT_EQ(access.GetObject("Access_Item.Name=\"i1\""), static_cast<HRESULT>(WBEM_E_NOT_FOUND));

    const HRESULT hr = access.ConnectToNamespace("root\\no\\such", 0, nullptr);
    EXPECT_EQ(hr, static_cast<HRESULT>(WBEM_E_INVALID_NAMESPACE)) << std::hex << hr;
    EXPECT_STREQ(access.GetNamespaceName(), "");
    EXPECT_EQ(static_cast<IWbemServices*>(access), nullptr);
    EXPECT_EQ(access.GetObject("Other_Thing.Name=\"x\""), static_cast<HRESULT>(WBEM_E_INITIALIZATION_FAILURE));
}

TEST_F(WmiAccessTest, LocatorClassAndProxyBlanket)
{
    CLSID clsid = {};
    {
        CCWMIAccess access;
        ASSERT_EQ(access.ConnectToNamespace(kNamespace, 1, nullptr), S_OK);
        ASSERT_EQ(CimStoreLastLocatorClass(&clsid), S_OK);
        EXPECT_TRUE(IsEqualCLSID(clsid, CLSID_WbemAdministrativeLocator));
    }
    {
        // This test program is no WMI host: -1 decides for the ordinary locator.
        CCWMIAccess access;
        ASSERT_EQ(access.ConnectToNamespace(kNamespace, -1, nullptr), S_OK);
        ASSERT_EQ(CimStoreLastLocatorClass(&clsid), S_OK);
        EXPECT_TRUE(IsEqualCLSID(clsid, CLSID_WbemLocator));
    }
    ASSERT_EQ(CimStoreInjectFault(L"SetBlanket", nullptr, 0, E_ACCESSDENIED), S_OK);
    {
        CCWMIAccess access;
        EXPECT_EQ(access.ConnectToNamespace(kNamespace, 0, nullptr), E_ACCESSDENIED);
        EXPECT_STREQ(access.GetNamespaceName(), "");
    }
    {
        // In a provider the failing blanket is tolerated and its code returned.
        CCWMIAccess access;
        EXPECT_EQ(access.ConnectToNamespace(kNamespace, 1, nullptr), E_ACCESSDENIED);
        EXPECT_STREQ(access.GetNamespaceName(), kNamespace);
        EXPECT_EQ(access.GetObject("Access_Item.Name=\"i1\""), S_OK);
    }
}

// Runs this program as WmiPrvSE.exe next to itself: the host name decides for the
// administrative locator and a failing proxy blanket is tolerated.
TEST_F(WmiAccessTest, ProviderHostIsRecognisedByItsName)
{
    wchar_t wszSelf[MAX_PATH];
    GetModuleFileNameW(nullptr, wszSelf, MAX_PATH);
    std::wstring wsHost = wszSelf;
    wsHost = wsHost.substr(0, wsHost.rfind(L'\\') + 1) + L"WMIPRVSE.EXE";
    ASSERT_TRUE(CopyFileW(wszSelf, wsHost.c_str(), FALSE));
    std::wstring wsCommand = L"\"" + wsHost + L"\" --gtest_filter=ChildProcess.AdministrativeLocatorInsideTheHost";
    SetEnvironmentVariableW(L"MORADEL_TEST_HOST", L"1");
    STARTUPINFOW si = {};
    si.cb = sizeof(si);
    PROCESS_INFORMATION pi = {};
    const BOOL bStarted =
        CreateProcessW(wsHost.c_str(), wsCommand.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &si, &pi);
    SetEnvironmentVariableW(L"MORADEL_TEST_HOST", nullptr);
    ASSERT_TRUE(bStarted);
    WaitForSingleObject(pi.hProcess, 60000);
    DWORD dwExit = 1;
    GetExitCodeProcess(pi.hProcess, &dwExit);
    CloseHandle(pi.hThread);
    CloseHandle(pi.hProcess);
    DeleteFileW(wsHost.c_str());
    EXPECT_EQ(dwExit, 0u);
}

TEST(ChildProcess, AdministrativeLocatorInsideTheHost)
{
    if (!GetEnvironmentVariableW(L"MORADEL_TEST_HOST", nullptr, 0))
        GTEST_SKIP() << "runs as WMIPRVSE.EXE only";
    ASSERT_TRUE(SUCCEEDED(CoInitializeEx(nullptr, COINIT_MULTITHREADED)));
    ASSERT_EQ(CimStoreReset(), S_OK);
    wchar_t wszError[256] = {};
    ASSERT_EQ(CimStoreLoadMofText(L"#pragma namespace(\"\\\\\\\\.\\\\root\\\\host\")\nclass Host_Thing { [key] string Name; };\n",
                                  L"host.mof", nullptr, wszError, 256),
              S_OK);
    ASSERT_EQ(CimStoreInjectFault(L"SetBlanket", nullptr, 0, E_ACCESSDENIED), S_OK);
    {
        CCWMIAccess access;
        EXPECT_EQ(access.ConnectToNamespace("root\\host", -1, nullptr), E_ACCESSDENIED);
        EXPECT_STREQ(access.GetNamespaceName(), "root\\host");
        CLSID clsid = {};
        CimStoreLastLocatorClass(&clsid);
        EXPECT_TRUE(IsEqualCLSID(clsid, CLSID_WbemAdministrativeLocator));
    }
    CimStoreReset();
    CoUninitialize();
}

TEST_F(WmiAccessTest, ContextValuesReachTheServiceWithEveryCall)
{
    {
        CCWMIAccess access("Inventory", "2.5", "Agent");
        ASSERT_NE(access.GetContext(), nullptr);
        ASSERT_EQ(CimStoreClearContextRecords(), S_OK);
        ASSERT_EQ(access.ConnectToNamespace(kNamespace, 0, nullptr), S_OK);
        ASSERT_EQ(access.ExecuteQuery("SELECT * FROM Access_Item", 0), S_OK);
        ASSERT_EQ(access.GetObject("Access_Holder.Name=\"h1\""), S_OK);
        ASSERT_EQ(access.NewInstance("Access_Item"), S_OK);
        ASSERT_EQ(access.GetClassInstances("Access_Holder", 0), S_OK);
    }
    const LONG lRecords = CimStoreContextRecordCount();
    ASSERT_GE(lRecords, 5);
    std::set<std::wstring> methods;
    for (LONG i = 0; i < lRecords; ++i) {
        wchar_t wszMethod[64] = {};
        wchar_t wszValue[64] = {};
        const struct {
            const wchar_t* wszName;
            const wchar_t* wszValue;
        } expected[] = {{L"FeatureName", L"Inventory"}, {L"FeatureVersion", L"2.5"}, {L"ContextName", L"Agent"}};
        for (const auto& e : expected) {
            ASSERT_EQ(CimStoreGetContextRecord(i, e.wszName, wszMethod, 64, wszValue, 64), S_OK)
                << i << " " << Narrow(e.wszName);
            EXPECT_STREQ(wszValue, e.wszValue);
        }
        methods.insert(wszMethod);
    }
    for (const wchar_t* wszMethod : {L"ConnectServer", L"ExecQuery", L"GetObject", L"CreateInstanceEnum"})
        EXPECT_EQ(methods.count(wszMethod), 1u) << Narrow(wszMethod);

    // The map form carries whatever names it is given.
    CCWMIAccess mapped;
    ASSERT_EQ(mapped.SetContext({{"ContextName", "Console"}, {"FeatureName", "Mapped"}}), S_OK);
    ASSERT_EQ(CimStoreClearContextRecords(), S_OK);
    ASSERT_EQ(mapped.ConnectToNamespace(kNamespace, 0, nullptr), S_OK);
    wchar_t wszMethod[64] = {};
    wchar_t wszValue[64] = {};
    ASSERT_EQ(CimStoreGetContextRecord(0, L"ContextName", wszMethod, 64, wszValue, 64), S_OK);
    EXPECT_STREQ(wszValue, L"Console");
    ASSERT_EQ(CimStoreGetContextRecord(0, L"FeatureName", wszMethod, 64, wszValue, 64), S_OK);
    EXPECT_STREQ(wszValue, L"Mapped");
    EXPECT_EQ(CimStoreGetContextRecord(0, L"FeatureVersion", wszMethod, 64, wszValue, 64),
              static_cast<HRESULT>(WBEM_E_NOT_FOUND));
}

TEST_F(WmiAccessTest, EnumerationEndsWithNoCurrentObject)
{
    CCWMIAccess access;
    EXPECT_EQ(access.GetNextWMIInstanceInEnumerator(), static_cast<HRESULT>(WBEM_E_UNEXPECTED));
    ASSERT_EQ(access.ConnectToNamespace(kNamespace, 0, nullptr), S_OK);
    ASSERT_EQ(access.ExecuteQuery("SELECT * FROM Access_Item WHERE Level >= 2", 0), S_OK);
    std::set<std::string> names;
    HRESULT hr = S_OK;
    for (; hr == S_OK; hr = access.GetNextWMIInstanceInEnumerator()) {
        ASSERT_NE(static_cast<IWbemClassObject*>(access), nullptr);
        names.insert(Property(access, "Name"));
    }
    EXPECT_EQ(hr, static_cast<HRESULT>(WBEM_E_NOT_AVAILABLE));
    EXPECT_EQ(static_cast<IWbemClassObject*>(access), nullptr);
    EXPECT_EQ(names, (std::set<std::string>{"i2", "i3", "i7"}));

    EXPECT_EQ(access.ExecuteQuery("SELECT * FROM Access_Item WHERE Level > 100", 0),
              static_cast<HRESULT>(WBEM_E_NOT_AVAILABLE));
    EXPECT_EQ(access.ExecuteQuery("SELECT * FROM Nothing_Here", 0), static_cast<HRESULT>(WBEM_E_INVALID_CLASS));
    ASSERT_EQ(access.GetClassInstances("Access_Holder", 0), S_OK);
    EXPECT_EQ(access.GetClassInstances("Nothing_Here", 0), static_cast<HRESULT>(WBEM_E_INVALID_CLASS));
    ASSERT_EQ(CimStoreInjectFault(L"Next", nullptr, 0, WBEM_E_TRANSPORT_FAILURE), S_OK);
    EXPECT_EQ(access.ExecuteQuery("SELECT * FROM Access_Item", 0), static_cast<HRESULT>(WBEM_E_TRANSPORT_FAILURE));
    EXPECT_EQ(static_cast<IWbemClassObject*>(access), nullptr);
}

TEST_F(WmiAccessTest, AssociationWalkVisitsEverySourceInstance)
{
    CCWMIAccess access;
    ASSERT_EQ(access.ConnectToNamespace(kNamespace, 0, nullptr), S_OK);
    // Holders come in key order: h1 links i1 and i2, h2 links nothing, h3 links i3.
    auto drain = [&access]() {
        std::set<std::string> names;
        HRESULT hr = S_OK;
        for (; hr == S_OK; hr = access.GetNextWMIInstanceInEnumerator())
            names.insert(Property(access, "Name"));
        EXPECT_EQ(hr, static_cast<HRESULT>(WBEM_E_NOT_AVAILABLE));
        return names;
    };
    ASSERT_EQ(access.GetAssociatedClassInstances("Access_Holder", "Access_Item"), S_OK);
    EXPECT_EQ(drain(), (std::set<std::string>{"i1", "i2"}));
    EXPECT_EQ(access.GetNextAssociatedClassInstances(), static_cast<HRESULT>(WBEM_E_NOT_AVAILABLE));
    EXPECT_EQ(static_cast<IWbemClassObject*>(access), nullptr);
    ASSERT_EQ(access.GetNextAssociatedClassInstances(), S_OK);
    EXPECT_EQ(drain(), (std::set<std::string>{"i3"}));
    EXPECT_EQ(access.GetNextAssociatedClassInstances(), static_cast<HRESULT>(WBEM_E_NOT_AVAILABLE));
    EXPECT_EQ(access.GetNextAssociatedClassInstances(), static_cast<HRESULT>(WBEM_E_NOT_AVAILABLE));

    // A source without any associated instance still starts the walk.
    ASSERT_EQ(CimStoreLoadMofText(L"#pragma namespace(\"\\\\\\\\.\\\\root\\\\accesstest\")\n"
                                  L"instance of Access_Holder { Name = \"a0\"; };\n",
                                  L"extra.mof", nullptr, nullptr, 0),
              S_OK);
    EXPECT_EQ(access.GetAssociatedClassInstances("Access_Holder", "Access_Item"),
              static_cast<HRESULT>(WBEM_E_NOT_AVAILABLE));
    ASSERT_EQ(access.GetNextAssociatedClassInstances(), S_OK);
    EXPECT_EQ(drain(), (std::set<std::string>{"i1", "i2"}));

    CCWMIAccess unconnected;
    EXPECT_EQ(unconnected.GetAssociatedClassInstances("Access_Holder", "Access_Item"),
              static_cast<HRESULT>(WBEM_E_INITIALIZATION_FAILURE));
    EXPECT_EQ(access.GetAssociatedClassInstances("Nothing_Here", "Access_Item"),
              static_cast<HRESULT>(WBEM_E_INVALID_CLASS));
}

TEST_F(WmiAccessTest, ObjectsAndNewInstances)
{
    CCWMIAccess access;
    EXPECT_EQ(access.NewInstance("Access_Item"), static_cast<HRESULT>(WBEM_E_INITIALIZATION_FAILURE));
    ASSERT_EQ(access.ConnectToNamespace(kNamespace, 0, nullptr), S_OK);
    ASSERT_EQ(access.NewInstance("Access_Item"), S_OK);
    CCVariant value;
    value.SetText(L"fresh");
    EXPECT_EQ(access.SetProperty("Name", value.Ptr()), S_OK);
    EXPECT_EQ(Property(access, "Name"), "fresh");
    EXPECT_EQ(Property(access, "__CLASS"), "Access_Item");
    EXPECT_NE(access.NewInstance("Nothing_Here"), S_OK);
    EXPECT_EQ(static_cast<IWbemClassObject*>(access), nullptr);
    EXPECT_EQ(access.SetProperty("Name", value.Ptr()), static_cast<HRESULT>(WBEM_E_UNEXPECTED));
    CCVariant out;
    EXPECT_EQ(access.GetProperty("Name", out.GetAddress(), false, 0), static_cast<HRESULT>(WBEM_E_UNEXPECTED));
    EXPECT_EQ(access.AttachNamespace(nullptr), static_cast<HRESULT>(WBEM_E_INVALID_PARAMETER));
    EXPECT_EQ(access.AttachInstanceObject(nullptr), static_cast<HRESULT>(WBEM_E_INVALID_PARAMETER));

    ASSERT_EQ(access.GetObject("Access_Item.Name=\"i1\""), S_OK);
    CCVariant flag;
    V_VT(flag.GetAddress()) = VT_BOOL;
    V_BOOL(flag.Ptr()) = VARIANT_TRUE;
    ASSERT_EQ(access.SetQualifier("NoPut", flag.Ptr(), nullptr), S_OK);
    ASSERT_EQ(access.GetQualifier("NoPut", out.GetAddress(), nullptr), S_OK);
    EXPECT_EQ(V_BOOL(&out.Get()), VARIANT_TRUE);
    EXPECT_EQ(access.GetQualifier("Values", out.GetAddress(), "Level"), static_cast<HRESULT>(WBEM_E_NOT_FOUND));
    ASSERT_EQ(access.GetClassQualifier("Access_Item", "Values", out.GetAddress(), "Level"), S_OK);
    EXPECT_EQ(out.Type(), VT_ARRAY | VT_BSTR);
    EXPECT_EQ(access.GetQualifier("Anything", out.GetAddress(), "__CLASS"),
              static_cast<HRESULT>(WBEM_E_SYSTEM_PROPERTY));
}

struct MapCase {
    const char* szItem;
    const char* szProperty;
    long lOffset;
    HRESULT hr;
    const char* szText;
};

TEST_F(WmiAccessTest, ValueMaps)
{
    const MapCase cases[] = {
        {"i1", "Level", 0, S_OK, "Alpha"},
        {"i2", "Level", 0, S_OK, "Beta"},
        {"i3", "Level", 0, S_OK, "Gamma"},  // the last entry is reached without a compare
        {"i7", "Level", 0, S_OK, "Gamma"},  // and stands for every unlisted value
        {"i1", "Level", 1, S_OK, "Beta"},
        {"i3", "Level", 1, static_cast<HRESULT>(WBEM_E_VALUE_OUT_OF_RANGE), ""},
        {"i1", "Code", 0, S_OK, "Two"},  // "01" is no match for 1: compared as text
        {"i2", "Code", 0, S_OK, "Two"},
        {"i1", "Short", 0, static_cast<HRESULT>(WBEM_E_VALUE_OUT_OF_RANGE), ""},  // fewer texts than map entries
        {"i1", "Note", 0, static_cast<HRESULT>(WBEM_E_NOT_FOUND), ""},            // no value map at all
        {"n1", "NumberMap", 0, static_cast<HRESULT>(WBEM_E_TYPE_MISMATCH), ""},   // not texts
        {"n1", "NumberValues", 0, static_cast<HRESULT>(WBEM_E_TYPE_MISMATCH), ""},
    };
    for (const MapCase& c : cases) {
        std::string sText;
        EXPECT_EQ(Mapped(c.szItem, c.szProperty, c.lOffset, sText), c.hr)
            << c.szItem << "." << c.szProperty << "+" << c.lOffset;
        EXPECT_EQ(sText, c.szText) << c.szItem << "." << c.szProperty << "+" << c.lOffset;
    }
}

TEST_F(WmiAccessTest, MappedValueNeedsALocale)
{
    CCWMIAccess access;
    ASSERT_EQ(access.ConnectToNamespace(kNamespace, 0, nullptr), S_OK);
    ASSERT_EQ(access.GetObject("Access_Item.Name=\"i1\""), S_OK);
    CCVariant value;
    V_VT(value.GetAddress()) = VT_I4;
    V_I4(value.Ptr()) = 12345;
    EXPECT_EQ(access.GetProperty("Level", value.Ptr(), true, 0), static_cast<HRESULT>(WBEM_E_ILLEGAL_OPERATION));
    EXPECT_EQ(value.Type(), VT_I4);
    EXPECT_EQ(V_I4(&value.Get()), 12345);
    EXPECT_FALSE(access.IsLocalized());
    // A later connection with a locale makes the object localized for good.
    ASSERT_EQ(access.ConnectToNamespace("ROOT\\ACCESSTEST", 0, "MS_409"), WBEM_S_ALREADY_EXISTS);
    EXPECT_FALSE(access.IsLocalized());
    CCWMIAccess localized;
    ASSERT_EQ(localized.ConnectToNamespace(kNamespace, 0, "MS_409"), S_OK);
    EXPECT_TRUE(localized.IsLocalized());
}

TEST_F(WmiAccessTest, PropertyEnumerationBufferEdge)
{
    CCWMIAccess access;
    ASSERT_EQ(access.ConnectToNamespace(kNamespace, 0, "MS_409"), S_OK);
    ASSERT_EQ(access.GetObject("Access_Item.Name=\"i1\""), S_OK);
    ASSERT_EQ(access.BeginPropertyEnumeration(), S_OK);
    char szName[64] = {};
    CCVariant value;
    // The first property is __GENUS: seven characters need a buffer of eight.
    ASSERT_EQ(access.GetNextProperty(szName, value.GetAddress(), 8, false, 0), S_OK);
    EXPECT_STREQ(szName, "__GENUS");
    EXPECT_EQ(access.EndPropertyEnumeration(), S_OK);
    ASSERT_EQ(access.BeginPropertyEnumeration(), S_OK);
    V_VT(value.GetAddress()) = VT_I4;
    EXPECT_EQ(access.GetNextProperty(szName, value.Ptr(), 7, false, 0), static_cast<HRESULT>(WBEM_E_OUT_OF_MEMORY));
    EXPECT_EQ(value.Type(), VT_EMPTY);
    EXPECT_EQ(access.EndPropertyEnumeration(), S_OK);

    // Mapped enumeration: system properties, unmapped and NULL values keep their raw form.
    ASSERT_EQ(access.GetObject("Access_Item.Name=\"i2\""), S_OK);
    ASSERT_EQ(access.BeginPropertyEnumeration(), S_OK);
    std::map<std::string, std::string> seen;
    HRESULT hr = S_OK;
    while ((hr = access.GetNextProperty(szName, value.GetAddress(), sizeof(szName), true, 0)) == S_OK)
        seen[szName] = value.Type() == VT_BSTR ? Text(value.Get()) : value.Type() == VT_NULL ? "<null>" : "<raw>";
    EXPECT_EQ(hr, static_cast<HRESULT>(WBEM_E_NOT_AVAILABLE));
    EXPECT_EQ(seen["__CLASS"], "Access_Item");
    EXPECT_EQ(seen["__GENUS"], "<raw>");
    EXPECT_EQ(seen["Level"], "Beta");
    EXPECT_EQ(seen["Code"], "Two");
    EXPECT_EQ(seen["Short"], "<null>");
    EXPECT_EQ(seen["Note"], "<null>");
    EXPECT_EQ(seen.size(), 10u + 5u);
    EXPECT_EQ(access.EndPropertyEnumeration(), S_OK);

    // Any other mapping failure ends with an empty value: i1's Short has no text for its entry.
    ASSERT_EQ(access.GetObject("Access_Item.Name=\"i1\""), S_OK);
    ASSERT_EQ(access.BeginPropertyEnumeration(), S_OK);
    while ((hr = access.GetNextProperty(szName, value.GetAddress(), sizeof(szName), true, 0)) == S_OK) {
    }
    EXPECT_EQ(hr, static_cast<HRESULT>(WBEM_E_VALUE_OUT_OF_RANGE));
    EXPECT_STREQ(szName, "Short");
    EXPECT_EQ(value.Type(), VT_EMPTY);

    CCWMIAccess empty;
    EXPECT_EQ(empty.BeginPropertyEnumeration(), static_cast<HRESULT>(WBEM_E_UNEXPECTED));
    EXPECT_EQ(empty.GetNextProperty(szName, value.GetAddress(), 64, false, 0), static_cast<HRESULT>(WBEM_E_UNEXPECTED));
}

TEST_F(WmiAccessTest, CopiesShareReferencesAndNeverKeepReleasedOnes)
{
    CCWMIAccess source("F", "1", "C");
    ASSERT_EQ(source.ConnectToNamespace(kNamespace, 0, nullptr), S_OK);
    ASSERT_EQ(source.GetObject("Access_Item.Name=\"i2\""), S_OK);
    {
        CCWMIAccess target;
        ASSERT_EQ(target.ConnectToNamespace(kNamespace, 0, nullptr), S_OK);
        ASSERT_EQ(target.ExecuteQuery("SELECT * FROM Access_Holder", 0), S_OK);
        ASSERT_NE(target.GetResultEnumeration(), nullptr);
        target = source;
        // The source has no result enumeration: the target's former one is gone, not dangling.
        EXPECT_EQ(target.GetResultEnumeration(), nullptr);
        EXPECT_EQ(static_cast<IWbemClassObject*>(target), static_cast<IWbemClassObject*>(source));
        EXPECT_EQ(static_cast<IWbemServices*>(target), static_cast<IWbemServices*>(source));
        EXPECT_EQ(target.GetContext(), source.GetContext());
        EXPECT_STREQ(target.GetNamespaceName(), kNamespace);
        EXPECT_EQ(Property(target, "Name"), "i2");
        target = target;
        EXPECT_EQ(Property(target, "Name"), "i2");
    }
    // The source still holds its own references after the copy went away.
    EXPECT_EQ(Property(source, "Name"), "i2");
    CCWMIAccess copy(source);
    EXPECT_EQ(Property(copy, "Name"), "i2");
}

}  // namespace
