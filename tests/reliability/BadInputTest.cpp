// Bad data on the example workstation: every property of one source instance of every class in
// turn is made NULL, a 64 KiB text, a text outside the code page, or (for arrays) 100,000
// elements. Every request still answers, leaves no store object behind, and reports the events
// of every other source instance as it did before.
#include "WorkstationTest.h"

#include "core/CNotificationHandler.h"

#include <regex>
#include <set>

using Microsoft::WRL::ComPtr;

namespace {

struct BadValue {
    const char* szName;
    CIMTYPE type;  // of the properties it is tried on; 0 for all
    void (*pfnMake)(CCVariant& value);
};

const BadValue kBadValues[] = {
    {"NULL", 0, [](CCVariant& value) { V_VT(value.Ptr()) = VT_NULL; }},
    {"64 KiB text", CIM_STRING, [](CCVariant& value) { value.SetText(std::wstring(64 * 1024, L'A').c_str()); }},
    {"text outside the code page", CIM_STRING,
     [](CCVariant& value) { value.SetText(L"\x4E2D\x6587 \x0436\x0443\x043A \x05D0\x05D1 \xD83D\xDE00"); }},
    {"100,000 elements", CIM_STRING | CIM_FLAG_ARRAY, [](CCVariant& value) {
         CCSafeArray array(SafeArrayCreateVector(VT_BSTR, 0, 100000));
         CCBstr element(L"x");
         for (LONG i = 0; array.Get() && i < 100000; ++i)
             SafeArrayPutElement(array.Get(), &i, element.Get());
         V_VT(value.Ptr()) = VT_ARRAY | VT_BSTR;
         V_ARRAY(value.Ptr()) = array.Detach();
     }},
};

// The events of every id that come neither from the instance wsPath nor from its whole class
// wsClass (an event over all services fails with one bad service, as it must): id and path of each.
std::set<std::wstring> EventsOutside(INotifications* pHandler, const std::wstring& wsPath, const std::wstring& wsClass)
{
    std::set<std::wstring> events;
    for (ULONG ulId : TableIds()) {
        CCVariant instances;
        ULONG ulReturn = 0;
        const HRESULT hr = pHandler->GetInstances(ulId, instances.Ptr(), &ulReturn);
        EXPECT_TRUE(SUCCEEDED(hr) || ulReturn == ulId || ulReturn == 0xFFFFFFFF) << "id " << ulId;
        for (const auto& pEvent : ReturnedObjects(instances)) {
            const std::wstring wsObject = PropertyText(pEvent.Get(), L"Object");
            if (wsObject != wsClass && (wsObject.empty() || wsObject.find(wsPath) == std::wstring::npos))
                events.insert(std::to_wstring(ulId) + L" " + PropertyText(pEvent.Get(), L"__RELPATH"));
        }
    }
    return events;
}

using BadInput = WorkstationTest;

TEST_F(BadInput, EveryPropertyOfEverySourceClassMayBeBad)
{
    ASSERT_NO_FATAL_FAILURE(LoadSettledWorkstation());
    ComPtr<INotifications> pHandler = InitializedHandler();
    ASSERT_TRUE(pHandler);
    int iMutations = 0;
    for (const wchar_t* wszNamespace : {L"root\\cimv2", L"root\\oxl1v2\\KM_Inventory", L"root\\oxl1v2\\KM_Bios"}) {
        ComPtr<IWbemServices> pServices;
        CCBstr bstrText;
        ASSERT_EQ(ConnectWmi(wszNamespace, pServices), S_OK);
        ASSERT_EQ(CimStoreSerializeNamespace(wszNamespace, FALSE, bstrText.GetAddress()), S_OK);
        const std::wstring wsText(bstrText.Get(), bstrText.Length());
        const std::wregex instanceOf(LR"(instance of (\w+))");
        std::set<std::wstring> classes;
        for (std::wsregex_iterator it(wsText.begin(), wsText.end(), instanceOf), end; it != end; ++it)
            classes.insert((*it)[1].str());
        for (const std::wstring& wsClass : classes) {
            WbemObjects instances;
            ASSERT_EQ(QueryAll(pServices.Get(), L"select * from " + wsClass, instances), S_OK) << Narrow(wsClass);
            if (instances.empty())
                continue;
            IWbemClassObject* pOriginal = instances.front().Get();
            const std::wstring wsRelPath = PropertyText(pOriginal, L"__RELPATH");
            const std::set<std::wstring> expected = EventsOutside(pHandler.Get(), wsRelPath, wsClass);
            std::vector<std::pair<std::wstring, CIMTYPE>> properties;
            CCBstr bstrName;
            CIMTYPE type = 0;
            pOriginal->BeginEnumeration(WBEM_FLAG_NONSYSTEM_ONLY);
            while (pOriginal->Next(0, bstrName.GetAddress(), nullptr, &type, nullptr) == S_OK)
                properties.emplace_back(bstrName.Get(), type);
            pOriginal->EndEnumeration();
            for (const auto& [wsProperty, propertyType] : properties)
                for (const BadValue& row : kBadValues) {
                    CCVariant bad;
                    ComPtr<IWbemClassObject> pBad;
                    if (row.type && row.type != propertyType)
                        continue;
                    row.pfnMake(bad);
                    const std::string sCase = Narrow(wsClass + L"." + wsProperty) + " " + row.szName;
                    ASSERT_EQ(pOriginal->Clone(pBad.GetAddressOf()), S_OK) << sCase;
                    // A key cannot be bad in a stored instance; its value is what identifies it.
                    if (FAILED(pBad->Put(wsProperty.c_str(), 0, bad.Ptr(), 0)) ||
                        FAILED(pServices->PutInstance(pBad.Get(), WBEM_FLAG_UPDATE_ONLY, nullptr, nullptr)))
                        continue;
                    ++iMutations;
                    const LONG lObjects = CimStoreLiveObjects();
                    const std::set<std::wstring> reported = EventsOutside(pHandler.Get(), wsRelPath, wsClass);
                    EXPECT_EQ(CimStoreLiveObjects(), lObjects) << sCase;
                    // The enclosure's chassis type decides whether displays are inventoried (id 60) or not.
                    for (const std::wstring& wsEvent : expected)
                        EXPECT_TRUE(reported.count(wsEvent) ||
                                    (wsClass == L"Win32_SystemEnclosure" && wsEvent.rfind(L"60 ", 0) == 0))
                            << sCase << ": lost " << Narrow(wsEvent);
                    ASSERT_EQ(pServices->PutInstance(pOriginal, WBEM_FLAG_UPDATE_ONLY, nullptr, nullptr), S_OK);
                    if (HasFailure())
                        return;
                }
        }
    }
    EXPECT_GT(iMutations, 200) << "bad values stored";
}

}  // namespace
