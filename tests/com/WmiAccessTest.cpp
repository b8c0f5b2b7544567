// CCWMIAccess against CimStore: connection rules, context, enumerations, association walks,
// value maps and property enumeration.
#include "access/CCWMIAccess.h"

#include "CimStoreTest.h"
#include "TempDir.h"

#include "access/ComHolders.h"

#include <map>
#include <process.h>
#include <set>

namespace {

constexpr char kNamespace[] = "root\\accesstest";
using Texts = std::map<std::wstring, std::wstring>;

std::string Text(const VARIANT& v)
{
    return V_VT(&v) == VT_BSTR && V_BSTR(&v) ? Narrow(V_BSTR(&v)) : std::string("<not text>");
}

std::string Property(CCWMIAccess& access, const char* szName)
{
    CCVariant value;
    return FAILED(access.GetProperty(szName, value.GetAddress(), false, 0)) ? "<error>" : Text(value.Get());
}

// The names of the current object and all after it in the result enumeration; the walk must end with NOT_AVAILABLE.
std::set<std::string> Drain(CCWMIAccess& access)
{
    std::set<std::string> names;
    HRESULT hr = S_OK;
    for (; hr == S_OK; hr = access.GetNextWMIInstanceInEnumerator())
        names.insert(Property(access, "Name"));
    EXPECT_EQ(hr, WBEM_E_NOT_AVAILABLE);
    EXPECT_EQ(static_cast<IWbemClassObject*>(access), nullptr);
    return names;
}

// Connects with a SetBlanket fault or none and checks the locator class used and whether the connection stands.
void ExpectConnect(long lInProvider, bool bBlanketFails, HRESULT hrExpected, const CLSID& locator)
{
    ASSERT_EQ(bBlanketFails ? CimStoreInjectFault(L"SetBlanket", nullptr, 0, E_ACCESSDENIED) : S_OK, S_OK);
    CCWMIAccess access;
    EXPECT_EQ(access.ConnectToNamespace(kNamespace, lInProvider, nullptr), hrExpected) << lInProvider;
    CLSID clsid = {};
    ASSERT_EQ(CimStoreLastLocatorClass(&clsid), S_OK);
    EXPECT_TRUE(IsEqualCLSID(clsid, locator)) << lInProvider;
    const bool bConnected = SUCCEEDED(hrExpected) || IsEqualCLSID(locator, CLSID_WbemAdministrativeLocator);
    EXPECT_STREQ(access.GetNamespaceName(), bConnected ? kNamespace : "") << lInProvider;
    EXPECT_TRUE(!bConnected || access.GetObject("Access_Item.Name=\"i1\"") == S_OK) << lInProvider;
}

class WmiAccessTest : public CimStoreTest {
protected:
    void SetUp() override
    {
        CimStoreTest::SetUp();
        ASSERT_NO_FATAL_FAILURE(LoadFixture(L"access\\access.mof"));
    }
};

TEST_F(WmiAccessTest, ConnectionRules)
{
    CCWMIAccess access;
    ASSERT_EQ(access.ConnectToNamespace(kNamespace, 0, nullptr), S_OK);
    IWbemServices* pFirst = access;
    EXPECT_TRUE(access.AlreadyConnectedToNamespace("ROOT\\ACCESSTEST"));
    EXPECT_EQ(access.ConnectToNamespace("ROOT\\AccessTest", -1, nullptr), WBEM_S_ALREADY_EXISTS);
    EXPECT_EQ(static_cast<IWbemServices*>(access), pFirst);
    LoadMof(L"#pragma namespace(\"\\\\\\\\.\\\\root\\\\other\")\nclass Other_Thing { [key] string Name; };\n"
            L"instance of Other_Thing { Name = \"x\"; };\n");
    ASSERT_EQ(access.ConnectToNamespace("root\\other", 0, nullptr), S_OK);
    EXPECT_STREQ(access.GetNamespaceName(), "root\\other");
    EXPECT_EQ(access.GetObject("Other_Thing.Name=\"x\""), S_OK);
    EXPECT_EQ(access.GetObject("Access_Item.Name=\"i1\""), WBEM_E_NOT_FOUND);
    EXPECT_EQ(access.ConnectToNamespace("root\\no\\such", 0, nullptr), WBEM_E_INVALID_NAMESPACE);
    EXPECT_STREQ(access.GetNamespaceName(), "");
    EXPECT_EQ(access.GetObject("Other_Thing.Name=\"x\""), WBEM_E_INITIALIZATION_FAILURE);
}

// Inside a provider the administrative locator is used and a failing proxy blanket is tolerated
// (its code returned); this test program is no provider host, so -1 decides for the ordinary one.
TEST_F(WmiAccessTest, LocatorClassAndProxyBlanket)
{
    ExpectConnect(1, false, S_OK, CLSID_WbemAdministrativeLocator);
    ExpectConnect(-1, false, S_OK, CLSID_WbemLocator);
    ExpectConnect(0, true, E_ACCESSDENIED, CLSID_WbemLocator);
    ExpectConnect(1, true, E_ACCESSDENIED, CLSID_WbemAdministrativeLocator);
}

// Runs this program as WMIPRVSE.EXE next to itself: the host's name alone makes it a provider.
TEST_F(WmiAccessTest, ProviderHostIsRecognisedByItsName)
{
    wchar_t wszSelf[MAX_PATH];
    GetModuleFileNameW(nullptr, wszSelf, MAX_PATH);
    std::wstring wsHost = wszSelf;
    wsHost = wsHost.substr(0, wsHost.rfind(L'\\') + 1) + L"WMIPRVSE.EXE";
    ASSERT_TRUE(CopyFileW(wszSelf, wsHost.c_str(), FALSE));
    // The child inherits the variable; _wputenv keeps the runtime's copy of the environment in step.
    _wputenv(L"MORADEL_TEST_HOST=1");
    const intptr_t iExit = _wspawnl(_P_WAIT, wsHost.c_str(), L"WMIPRVSE.EXE",
                                    L"--gtest_filter=ChildProcess.AdministrativeLocatorInsideTheHost", nullptr);
    _wputenv(L"MORADEL_TEST_HOST=");
    DeleteFileW(wsHost.c_str());
    EXPECT_EQ(iExit, 0);
}

using ChildProcess = WmiAccessTest;

TEST_F(ChildProcess, AdministrativeLocatorInsideTheHost)
{
    if (!GetEnvironmentVariableW(L"MORADEL_TEST_HOST", nullptr, 0))
        GTEST_SKIP() << "runs as WMIPRVSE.EXE only";
    ExpectConnect(-1, true, E_ACCESSDENIED, CLSID_WbemAdministrativeLocator);
}

TEST_F(WmiAccessTest, ContextValuesReachTheServiceWithEveryCall)
{
    // The context of a recorded call; every method seen goes into methods.
    std::set<std::wstring> methods;
    auto contextOf = [&methods](LONG lRecord) {
        Texts values;
        for (const wchar_t* wszName : {L"FeatureName", L"FeatureVersion", L"ContextName"}) {
            wchar_t wszMethod[64] = {}, wszValue[64] = {};
            if (CimStoreGetContextRecord(lRecord, wszName, wszMethod, 64, wszValue, 64) == S_OK)
                values[wszName] = wszValue;
            methods.insert(wszMethod);
        }
        return values;
    };
    {
        CCWMIAccess access("Inventory", "2.5", "Agent");
        ASSERT_EQ(CimStoreClearContextRecords(), S_OK);
        ASSERT_EQ(access.ConnectToNamespace(kNamespace, 0, nullptr), S_OK);
        ASSERT_EQ(access.ExecuteQuery("SELECT * FROM Access_Item", 0), S_OK);
        ASSERT_EQ(access.GetObject("Access_Holder.Name=\"h1\""), S_OK);
        ASSERT_EQ(access.NewInstance("Access_Item"), S_OK);
        ASSERT_EQ(access.GetClassInstances("Access_Holder", 0), S_OK);
    }
    const LONG lRecords = CimStoreContextRecordCount();
    ASSERT_GE(lRecords, 5);
    for (LONG i = 0; i < lRecords; ++i)
        EXPECT_EQ(contextOf(i),
                  (Texts{{L"FeatureName", L"Inventory"}, {L"FeatureVersion", L"2.5"}, {L"ContextName", L"Agent"}}))
            << i;
    for (const wchar_t* wszMethod : {L"ConnectServer", L"ExecQuery", L"GetObject", L"CreateInstanceEnum"})
        EXPECT_EQ(methods.count(wszMethod), 1u) << Narrow(wszMethod);
    // The map form, with whatever names it is given.
    CCWMIAccess mapped;
    ASSERT_EQ(mapped.SetContext({{"ContextName", "Console"}, {"FeatureName", "Mapped"}}), S_OK);
    ASSERT_EQ(CimStoreClearContextRecords(), S_OK);
    ASSERT_EQ(mapped.ConnectToNamespace(kNamespace, 0, nullptr), S_OK);
    EXPECT_EQ(contextOf(0), (Texts{{L"ContextName", L"Console"}, {L"FeatureName", L"Mapped"}}));
}

TEST_F(WmiAccessTest, EnumerationEndsWithNoCurrentObject)
{
    CCWMIAccess access;
    EXPECT_EQ(access.GetNextWMIInstanceInEnumerator(), WBEM_E_UNEXPECTED);
    ASSERT_EQ(access.ConnectToNamespace(kNamespace, 0, nullptr), S_OK);
    ASSERT_EQ(access.ExecuteQuery("SELECT * FROM Access_Item WHERE Level >= 2", 0), S_OK);
    EXPECT_EQ(Drain(access), (std::set<std::string>{"i2", "i3", "i7"}));
    EXPECT_EQ(access.ExecuteQuery("SELECT * FROM Access_Item WHERE Level > 100", 0), WBEM_E_NOT_AVAILABLE);
    EXPECT_EQ(access.ExecuteQuery("SELECT * FROM Nothing_Here", 0), WBEM_E_INVALID_CLASS);
    ASSERT_EQ(access.GetClassInstances("Access_Holder", 0), S_OK);
    EXPECT_EQ(access.GetClassInstances("Nothing_Here", 0), WBEM_E_INVALID_CLASS);
    ASSERT_EQ(CimStoreInjectFault(L"Next", nullptr, 0, WBEM_E_TRANSPORT_FAILURE), S_OK);
    EXPECT_EQ(access.ExecuteQuery("SELECT * FROM Access_Item", 0), WBEM_E_TRANSPORT_FAILURE);
    EXPECT_EQ(static_cast<IWbemClassObject*>(access), nullptr);
}

TEST_F(WmiAccessTest, AssociationWalkVisitsEverySourceInstance)
{
    CCWMIAccess access, unconnected;
    EXPECT_EQ(unconnected.GetAssociatedClassInstances("Access_Holder", "Access_Item"), WBEM_E_INITIALIZATION_FAILURE);
    ASSERT_EQ(access.ConnectToNamespace(kNamespace, 0, nullptr), S_OK);
    EXPECT_EQ(access.GetAssociatedClassInstances("Nothing_Here", "Access_Item"), WBEM_E_INVALID_CLASS);
    // Holders come in key order: h1 links i1 and i2, h2 links nothing, h3 links i3.
    ASSERT_EQ(access.GetAssociatedClassInstances("Access_Holder", "Access_Item"), S_OK);
    EXPECT_EQ(Drain(access), (std::set<std::string>{"i1", "i2"}));
    EXPECT_EQ(access.GetNextAssociatedClassInstances(), WBEM_E_NOT_AVAILABLE);
    EXPECT_EQ(static_cast<IWbemClassObject*>(access), nullptr);
    ASSERT_EQ(access.GetNextAssociatedClassInstances(), S_OK);
    EXPECT_EQ(Drain(access), (std::set<std::string>{"i3"}));
    EXPECT_EQ(access.GetNextAssociatedClassInstances(), WBEM_E_NOT_AVAILABLE);
    // A first source without any associated instance still starts the walk.
    LoadMof(L"#pragma namespace(\"\\\\\\\\.\\\\root\\\\accesstest\")\ninstance of Access_Holder { Name = \"a0\"; };\n");
    EXPECT_EQ(access.GetAssociatedClassInstances("Access_Holder", "Access_Item"), WBEM_E_NOT_AVAILABLE);
    ASSERT_EQ(access.GetNextAssociatedClassInstances(), S_OK);
    EXPECT_EQ(Drain(access), (std::set<std::string>{"i1", "i2"}));
}

TEST_F(WmiAccessTest, ObjectsAndNewInstances)
{
    CCWMIAccess access;
    EXPECT_EQ(access.NewInstance("Access_Item"), WBEM_E_INITIALIZATION_FAILURE);
    ASSERT_EQ(access.ConnectToNamespace(kNamespace, 0, nullptr), S_OK);
    ASSERT_EQ(access.NewInstance("Access_Item"), S_OK);
    CCVariant value, out;
    value.SetText(L"fresh");
    EXPECT_EQ(access.SetProperty("Name", value.Ptr()), S_OK);
    EXPECT_EQ(Property(access, "Name"), "fresh");
    EXPECT_EQ(Property(access, "__CLASS"), "Access_Item");
    EXPECT_NE(access.NewInstance("Nothing_Here"), S_OK);
    EXPECT_EQ(static_cast<IWbemClassObject*>(access), nullptr);
    EXPECT_EQ(access.SetProperty("Name", value.Ptr()), WBEM_E_UNEXPECTED);
    EXPECT_EQ(access.GetProperty("Name", out.GetAddress(), false, 0), WBEM_E_UNEXPECTED);
    ASSERT_EQ(access.GetObject("Access_Item.Name=\"i1\""), S_OK);
    V_VT(value.GetAddress()) = VT_BOOL;
    V_BOOL(value.Ptr()) = VARIANT_TRUE;
    ASSERT_EQ(access.SetQualifier("NoPut", value.Ptr(), nullptr), S_OK);
    ASSERT_EQ(access.GetQualifier("NoPut", out.GetAddress(), nullptr), S_OK);
    EXPECT_TRUE(out.Type() == VT_BOOL && V_BOOL(&out.Get()) == VARIANT_TRUE);
    EXPECT_EQ(access.GetQualifier("Values", out.GetAddress(), "Level"), WBEM_E_NOT_FOUND);
    ASSERT_EQ(access.GetClassQualifier("Access_Item", "Values", out.GetAddress(), "Level"), S_OK);
    EXPECT_EQ(out.Type(), VT_ARRAY | VT_BSTR);
    EXPECT_EQ(access.GetQualifier("Anything", out.GetAddress(), "__CLASS"), WBEM_E_SYSTEM_PROPERTY);
}

TEST_F(WmiAccessTest, ValueMaps)
{
    // Items named n... are of the class whose value maps hold numbers.
    const struct { const char *szItem, *szProperty; long lOffset; unsigned uHr; const char* szText; } rows[] = {
        {"i1", "Level", 0, S_OK, "Alpha"},
        {"i3", "Level", 0, S_OK, "Gamma"},  // the last entry is reached without a compare
        {"i7", "Level", 0, S_OK, "Gamma"},  // and stands for every unlisted value
        {"i1", "Level", 1, S_OK, "Beta"},
        {"i3", "Level", 1, WBEM_E_VALUE_OUT_OF_RANGE, ""},
        {"i1", "Code", 0, S_OK, "Two"},  // "01" is no match for 1: compared as text
        {"i2", "Code", 0, S_OK, "Two"},
        {"i1", "Short", 0, WBEM_E_VALUE_OUT_OF_RANGE, ""},  // fewer texts than map entries
        {"i1", "Note", 0, WBEM_E_NOT_FOUND, ""},            // no value map at all
        {"n1", "NumberMap", 0, WBEM_E_TYPE_MISMATCH, ""},   // not texts
        {"n1", "NumberValues", 0, WBEM_E_TYPE_MISMATCH, ""},
    };
    for (const auto& row : rows) {
        CCWMIAccess access;
        ASSERT_EQ(access.ConnectToNamespace(kNamespace, 0, "MS_409"), S_OK);
        const std::string sClass = row.szItem[0] == 'n' ? "Access_NumberMaps" : "Access_Item";
        ASSERT_EQ(access.GetObject((sClass + ".Name=\"" + row.szItem + "\"").c_str()), S_OK);
        CCVariant value;
        const HRESULT hr = access.GetProperty(row.szProperty, value.GetAddress(), true, row.lOffset);
        EXPECT_EQ(static_cast<unsigned>(hr), row.uHr) << row.szItem << "." << row.szProperty << "+" << row.lOffset;
        EXPECT_EQ(SUCCEEDED(hr) ? Text(value.Get()) : "", row.szText) << row.szItem << "." << row.szProperty;
    }
    // Without a locale there is nothing to map with, and the value is left alone.
    CCWMIAccess access;
    ASSERT_EQ(access.ConnectToNamespace(kNamespace, 0, nullptr), S_OK);
    ASSERT_EQ(access.GetObject("Access_Item.Name=\"i1\""), S_OK);
    CCVariant value;
    V_VT(value.GetAddress()) = VT_I4;
    V_I4(value.Ptr()) = 12345;
    EXPECT_EQ(access.GetProperty("Level", value.Ptr(), true, 0), WBEM_E_ILLEGAL_OPERATION);
    EXPECT_TRUE(value.Type() == VT_I4 && V_I4(&value.Get()) == 12345);
    // A locale given to a connection that already stands changes nothing.
    ASSERT_EQ(access.ConnectToNamespace("ROOT\\ACCESSTEST", 0, "MS_409"), WBEM_S_ALREADY_EXISTS);
    EXPECT_FALSE(access.IsLocalized());
}

TEST_F(WmiAccessTest, PropertyEnumerationBufferEdge)
{
    CCWMIAccess access, empty;
    char szName[64] = {};
    CCVariant value;
    EXPECT_EQ(empty.BeginPropertyEnumeration(), WBEM_E_UNEXPECTED);
    EXPECT_EQ(empty.GetNextProperty(szName, value.GetAddress(), 64, false, 0), WBEM_E_UNEXPECTED);
    ASSERT_EQ(access.ConnectToNamespace(kNamespace, 0, "MS_409"), S_OK);
    EXPECT_TRUE(access.IsLocalized());
    ASSERT_EQ(access.GetObject("Access_Item.Name=\"i1\""), S_OK);
    // The first property is __GENUS: seven characters need a buffer of eight.
    ASSERT_EQ(access.BeginPropertyEnumeration(), S_OK);
    ASSERT_EQ(access.GetNextProperty(szName, value.GetAddress(), 8, false, 0), S_OK);
    EXPECT_STREQ(szName, "__GENUS");
    EXPECT_EQ(access.EndPropertyEnumeration(), S_OK);
    ASSERT_EQ(access.BeginPropertyEnumeration(), S_OK);
    V_VT(value.GetAddress()) = VT_I4;
    EXPECT_EQ(access.GetNextProperty(szName, value.Ptr(), 7, false, 0), WBEM_E_OUT_OF_MEMORY);
    EXPECT_EQ(value.Type(), VT_EMPTY);
    EXPECT_EQ(access.EndPropertyEnumeration(), S_OK);
    // Mapped enumeration: system properties, unmapped and NULL values keep their raw form.
    ASSERT_EQ(access.GetObject("Access_Item.Name=\"i2\""), S_OK);
    ASSERT_EQ(access.BeginPropertyEnumeration(), S_OK);
    std::map<std::string, std::string> seen;
    HRESULT hr = S_OK;
    while ((hr = access.GetNextProperty(szName, value.GetAddress(), sizeof(szName), true, 0)) == S_OK)
        seen[szName] = value.Type() == VT_BSTR ? Text(value.Get()) : value.Type() == VT_NULL ? "<null>" : "<raw>";
    EXPECT_EQ(hr, WBEM_E_NOT_AVAILABLE);
    EXPECT_EQ(seen.size(), 10u + 5u);
    for (const auto& [sName, sValue] : std::map<std::string, std::string>{
             {"__CLASS", "Access_Item"}, {"__GENUS", "<raw>"}, {"Level", "Beta"}, {"Short", "<null>"}})
        EXPECT_EQ(seen[sName], sValue) << sName;
    EXPECT_EQ(access.EndPropertyEnumeration(), S_OK);
    // Any other mapping failure ends with an empty value: i1's Short has no text for its entry.
    ASSERT_EQ(access.GetObject("Access_Item.Name=\"i1\""), S_OK);
    ASSERT_EQ(access.BeginPropertyEnumeration(), S_OK);
    while ((hr = access.GetNextProperty(szName, value.GetAddress(), sizeof(szName), true, 0)) == S_OK) {
    }
    EXPECT_EQ(hr, WBEM_E_VALUE_OUT_OF_RANGE);
    EXPECT_STREQ(szName, "Short");
    EXPECT_EQ(value.Type(), VT_EMPTY);
}

}  // namespace
