// The chain an unchanged WMI client uses: CoCreateInstance(CLSID_WbemLocator) reaches CimStore.
#include "CimStoreTest.h"

#include "access/ComHolders.h"
#include "access/WbemGuids.h"

#include <wrl/client.h>

using Microsoft::WRL::ComPtr;

namespace {

constexpr wchar_t kMof[] = LR"(
#pragma namespace("\\\\.\\root\\smoke")
class Smoke_Item { [key] string Name; uint32 Size; };
instance of Smoke_Item { Name = "a"; Size = 1; };
instance of Smoke_Item { Name = "b"; Size = 2; };
)";

using ServiceSmokeTest = CimStoreTest;

TEST_F(ServiceSmokeTest, QueryThroughTheWmiLocator)
{
    LoadMof(kMof);
    ComPtr<IWbemLocator> pLocator;
    ASSERT_EQ(CoCreateInstance(CLSID_WbemLocator, nullptr, CLSCTX_INPROC_SERVER, IID_IWbemLocator,
                               reinterpret_cast<void**>(pLocator.GetAddressOf())),
              S_OK);
    ComPtr<IWbemServices> pServices;
    CCBstr bstrNamespace(L"ROOT\\Smoke");
    ASSERT_EQ(pLocator->ConnectServer(bstrNamespace.Get(), nullptr, nullptr, nullptr, 0, nullptr, nullptr,
                                      pServices.GetAddressOf()),
              S_OK);
    EXPECT_EQ(CoSetProxyBlanket(pServices.Get(), RPC_C_AUTHN_WINNT, RPC_C_AUTHZ_NONE, nullptr, RPC_C_AUTHN_LEVEL_CALL,
                                RPC_C_IMP_LEVEL_IMPERSONATE, nullptr, EOAC_NONE),
              S_OK);
    ComPtr<IEnumWbemClassObject> pEnum;
    CCBstr bstrLanguage(L"WQL");
    CCBstr bstrQuery(L"SELECT * FROM Smoke_Item WHERE Size > 1");
    ASSERT_EQ(pServices->ExecQuery(bstrLanguage.Get(), bstrQuery.Get(), 0, nullptr, pEnum.GetAddressOf()), S_OK);
    IWbemClassObject* apObjects[2] = {};
    ULONG uReturned = 0xdeadbeef;
    EXPECT_EQ(pEnum->Next(2000, 2, apObjects, &uReturned), WBEM_S_FALSE);
    ASSERT_EQ(uReturned, 1u);
    ComPtr<IWbemClassObject> pItem;
    TakeOwnership(pItem, apObjects[0]);
    CCVariant value;
    CIMTYPE type = 0;
    ASSERT_EQ(pItem->Get(L"__RELPATH", 0, value.GetAddress(), &type, nullptr), S_OK);
    EXPECT_STREQ(V_BSTR(&value.Get()), L"Smoke_Item.Name=\"b\"");
    ASSERT_EQ(pItem->Get(L"Size", 0, value.GetAddress(), &type, nullptr), S_OK);
    EXPECT_EQ(value.Type(), VT_I4);
    EXPECT_EQ(V_I4(&value.Get()), 2);
    EXPECT_EQ(type, CIM_UINT32);
}

}  // namespace
