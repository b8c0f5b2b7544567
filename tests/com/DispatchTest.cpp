// The handler late bound: dispatch ids, the embedded type library and Invoke.
#include "CimStoreTest.h"
#include "MoradelModule.h"
#include "TempDir.h"

#include "access/ComHolders.h"

#include <wrl/client.h>

#include <memory>
#include <string>

using Microsoft::WRL::ComPtr;

namespace {

// Owns the texts Invoke may leave in an EXCEPINFO.
struct CCExcepInfo : EXCEPINFO {
    CCExcepInfo() : EXCEPINFO{} {}
    ~CCExcepInfo()
    {
        SysFreeString(bstrSource);
        SysFreeString(bstrDescription);
        SysFreeString(bstrHelpFile);
    }
    CCExcepInfo(const CCExcepInfo&) = delete;
    CCExcepInfo& operator=(const CCExcepInfo&) = delete;
};

class DispatchTest : public CimStoreTest {
protected:
    void SetUp() override
    {
        CimStoreTest::SetUp();
        ASSERT_NO_FATAL_FAILURE(LoadFixture(L"..\\..\\schema\\KM_Notification.mof"));
        m_pModule = std::make_unique<MoradelModule>();
        ASSERT_TRUE(m_pModule->Loaded());
        ComPtr<INotifications> pHandler;
        ASSERT_EQ(m_pModule->CreateHandler(pHandler), S_OK);
        ASSERT_EQ(pHandler.As(&m_pDispatch), S_OK);
    }
    void TearDown() override
    {
        m_pDispatch.Reset();
        m_pModule.reset();
        CimStoreTest::TearDown();
    }

    DISPID DispId(const wchar_t* wszName)
    {
        LPOLESTR pName = const_cast<LPOLESTR>(wszName);
        DISPID id = DISPID_UNKNOWN;
        EXPECT_EQ(m_pDispatch->GetIDsOfNames(IID_NULL, &pName, 1, LOCALE_USER_DEFAULT, &id), S_OK) << Narrow(wszName);
        return id;
    }
    // Calls a method; args in call order (reversed here as DISPPARAMS wants them).
    HRESULT Call(const wchar_t* wszName, std::vector<VARIANT> args, CCVariant& result, EXCEPINFO* pExcep = nullptr)
    {
        std::vector<VARIANT> reversed(args.rbegin(), args.rend());
        DISPPARAMS params = {reversed.data(), nullptr, static_cast<UINT>(reversed.size()), 0};
        CCExcepInfo excep;
        UINT uArgErr = 0;
        return m_pDispatch->Invoke(DispId(wszName), IID_NULL, LOCALE_USER_DEFAULT, DISPATCH_METHOD, &params,
                                   result.GetAddress(), pExcep ? pExcep : &excep, &uArgErr);
    }
    static VARIANT Ui4(ULONG ul)
    {
        VARIANT v;
        V_VT(&v) = VT_UI4;
        V_UI4(&v) = ul;
        return v;
    }
    static VARIANT Str(BSTR bstr)
    {
        VARIANT v;
        V_VT(&v) = VT_BSTR;
        V_BSTR(&v) = bstr;
        return v;
    }
    void Initialize()
    {
        CCBstr bstrNamespace(L"root\\oxl1v2\\KM_Notification");
        CCVariant result;
        ASSERT_EQ(Call(L"Initialize", {Str(bstrNamespace.Get())}, result), S_OK);
        EXPECT_EQ(result.Type(), VT_UI4);
        EXPECT_EQ(V_UI4(&result.Get()), 0u);
    }

    std::unique_ptr<MoradelModule> m_pModule;
    ComPtr<IDispatch> m_pDispatch;
};

TEST_F(DispatchTest, DispatchIdsAreFixedInMethodOrder)
{
    const struct {
        const wchar_t* wszName;
        DISPID id;
    } rows[] = {{L"ComponentInitialize", 1}, {L"Initialize", 2}, {L"GetInstances", 3}, {L"DeleteObsoleteInstances", 4}};
    for (const auto& row : rows)
        EXPECT_EQ(DispId(row.wszName), row.id) << Narrow(row.wszName);
    LPOLESTR pName = const_cast<LPOLESTR>(L"NoSuchMethod");
    DISPID id = 0;
    EXPECT_EQ(m_pDispatch->GetIDsOfNames(IID_NULL, &pName, 1, LOCALE_USER_DEFAULT, &id), DISP_E_UNKNOWNNAME);
}

TEST_F(DispatchTest, TypeLibraryCarriesTheHelpStrings)
{
    UINT uCount = 0;
    ASSERT_EQ(m_pDispatch->GetTypeInfoCount(&uCount), S_OK);
    EXPECT_EQ(uCount, 1u);
    ComPtr<ITypeInfo> pInfo;
    ASSERT_EQ(m_pDispatch->GetTypeInfo(0, LOCALE_USER_DEFAULT, pInfo.GetAddressOf()), S_OK);
    ComPtr<ITypeLib> pLib;
    UINT uIndex = 0;
    ASSERT_EQ(pInfo->GetContainingTypeLib(pLib.GetAddressOf(), &uIndex), S_OK);

    auto helpOf = [](auto* pDoc, MEMBERID id) {
        CCBstr bstrHelp;
        EXPECT_EQ(pDoc->GetDocumentation(id, nullptr, bstrHelp.GetAddress(), nullptr, nullptr), S_OK);
        return std::wstring(bstrHelp.Get() ? bstrHelp.Get() : L"");
    };
    EXPECT_EQ(helpOf(pLib.Get(), -1), L"Moradel.dll 1.0 Type Library");
    EXPECT_EQ(helpOf(pInfo.Get(), MEMBERID_NIL), L"INotifications Interface");
    const struct {
        DISPID id;
        const wchar_t* wszHelp;
    } methods[] = {{1, L"method ComponentInitialize"}, {2, L"method Initialize"}, {3, L"method GetInstances"},
                   {4, L"method DeleteObsoleteInstances"}};
    for (const auto& method : methods)
        EXPECT_EQ(helpOf(pInfo.Get(), method.id), method.wszHelp) << method.id;

    ComPtr<ITypeInfo> pClass;
    ASSERT_EQ(pLib->GetTypeInfoOfGuid(CLSID_NotificationHandler, pClass.GetAddressOf()), S_OK);
    EXPECT_EQ(helpOf(pClass.Get(), MEMBERID_NIL), L"NotificationHandler Class");
    EXPECT_EQ(m_pDispatch->GetTypeInfo(1, LOCALE_USER_DEFAULT, pInfo.ReleaseAndGetAddressOf()), DISP_E_BADINDEX);
}

TEST_F(DispatchTest, GetInstancesTakesTheArrayByValueOrByReference)
{
    Initialize();
    // By reference, as a compiled client passes it: the array arrives in the caller's VARIANT.
    CCVariant instances;
    VARIANT byRef;
    V_VT(&byRef) = VT_VARIANT | VT_BYREF;
    V_VARIANTREF(&byRef) = instances.Ptr();
    CCVariant result;
    ASSERT_EQ(Call(L"GetInstances", {Ui4(59), byRef}, result), S_OK);
    EXPECT_EQ(V_UI4(&result.Get()), 0u);
    ASSERT_EQ(instances.Type(), VT_ARRAY | VT_VARIANT);
    LONG lUpper = -1;
    SafeArrayGetUBound(V_ARRAY(&instances.Get()), 1, &lUpper);
    EXPECT_EQ(lUpper, 0);

    // By value, as script engines pass it: the call works and the caller's value is untouched.
    VARIANT byValue;
    V_VT(&byValue) = VT_EMPTY;
    ASSERT_EQ(Call(L"GetInstances", {Ui4(59), byValue}, result), S_OK);
    EXPECT_EQ(V_UI4(&result.Get()), 0u);
}

TEST_F(DispatchTest, FailuresArriveAsExceptionsWithTheHresult)
{
    CCVariant instances;
    VARIANT byRef;
    V_VT(&byRef) = VT_VARIANT | VT_BYREF;
    V_VARIANTREF(&byRef) = instances.Ptr();
    CCVariant result;
    {
        CCExcepInfo excep;
        EXPECT_EQ(Call(L"GetInstances", {Ui4(59), byRef}, result, &excep), DISP_E_EXCEPTION);
        EXPECT_EQ(excep.scode, E_UNEXPECTED);
    }
    Initialize();
    {
        CCExcepInfo excep;
        EXPECT_EQ(Call(L"DeleteObsoleteInstances", {Ui4(10)}, result, &excep), DISP_E_EXCEPTION);
        EXPECT_EQ(excep.scode, E_INVALIDARG);
    }
    EXPECT_EQ(Call(L"DeleteObsoleteInstances", {Ui4(59)}, result), S_OK);
    EXPECT_EQ(V_UI4(&result.Get()), 0u);
}

}  // namespace
