// Bad data on the example workstation: every property of one source instance of every class in
// turn is made NULL, a 64 KiB text, a text outside the code page, or (for arrays) 100,000
// elements. Every request still answers, leaves no store object behind, and reports the events
// of every other source instance as it did before.
#include "WbemTestClient.h"
#include "WorkstationTest.h"

#include "core/CNotificationHandler.h"

#include <cstdio>
#include <map>
#include <memory>
#include <regex>
#include <set>
#include <string>
#include <vector>

using Microsoft::WRL::ComPtr;

namespace {

constexpr const wchar_t* kSourceNamespaces[] = {L"root\\cimv2", L"root\\oxl1v2\\KM_Inventory",
                                                L"root\\oxl1v2\\KM_Bios"};

// The events of every id that come neither from the instance wsRelPath nor from its whole class
// wsClass (an event over all services fails with one bad service, as it must): id and path of each.
std::set<std::wstring> EventsOutside(INotifications* pHandler, const std::wstring& wsRelPath,
                                     const std::wstring& wsClass, int* piFailures)
{
    std::set<std::wstring> events;
    for (const CNotificationHandler::KindEntry& entry : CNotificationHandler::KindTable()) {
        CCVariant instances;
        ULONG ulReturn = 0;
        const HRESULT hr = pHandler->GetInstances(entry.ulNotfyId, instances.Ptr(), &ulReturn);
        if (FAILED(hr)) {
            ++*piFailures;
            EXPECT_TRUE(ulReturn == entry.ulNotfyId || ulReturn == 0xFFFFFFFF) << "id " << entry.ulNotfyId;
            continue;
        }
        for (const auto& pEvent : ReturnedObjects(instances)) {
            const std::wstring wsObject = PropertyText(pEvent.Get(), L"Object");
            if (wsObject != wsClass && (wsObject.empty() || wsObject.find(wsRelPath) == std::wstring::npos))
                events.insert(std::to_wstring(entry.ulNotfyId) + L" " + PropertyText(pEvent.Get(), L"__RELPATH"));
        }
    }
    return events;
}

// Classes whose instance decides whether a kind reports at all: the enclosure's chassis type
// tells a desktop, whose displays are inventoried, from a notebook.
bool IsGatedBy(const std::wstring& wsClass, const std::wstring& wsEvent)
{
    return wsClass == L"Win32_SystemEnclosure" && wsEvent.rfind(L"60 ", 0) == 0;
}

struct BadValue {
    std::string sName;
    std::unique_ptr<CCVariant> pValue = std::make_unique<CCVariant>();
};

// The bad values for a property of this type: NULL always, and the texts or the long array.
std::vector<BadValue> BadValues(CIMTYPE type)
{
    std::vector<BadValue> values;
    values.push_back({"NULL"});
    V_VT(values.back().pValue->Ptr()) = VT_NULL;
    if (type == CIM_STRING) {
        values.push_back({"64 KiB text"});
        values.back().pValue->SetText(std::wstring(64 * 1024, L'A').c_str());
        values.push_back({"text outside the code page"});
        values.back().pValue->SetText(L"\x4E2D\x6587 \x0436\x0443\x043A \x05D0\x05D1 \xD83D\xDE00");
    } else if (type == (CIM_STRING | CIM_FLAG_ARRAY)) {
        CCSafeArray array(SafeArrayCreateVector(VT_BSTR, 0, 100000));
        CCBstr element(L"x");
        for (LONG i = 0; array.Get() && i < 100000; ++i)
            SafeArrayPutElement(array.Get(), &i, element.Get());
        values.push_back({"100,000 elements"});
        V_VT(values.back().pValue->Ptr()) = VT_ARRAY | VT_BSTR;
        V_ARRAY(values.back().pValue->Ptr()) = array.Detach();
    }
    return values;
}

class BadInput : public WorkstationTest {
protected:
    void SetUp() override
    {
        WorkstationTest::SetUp();
        if (HasFatalFailure())
            return;
        ASSERT_NO_FATAL_FAILURE(LoadSettledWorkstation());
    }
};

TEST_F(BadInput, EveryPropertyOfEverySourceClassMayBeBad)
{
    ComPtr<INotifications> pHandler = InitializedHandler();
    ASSERT_TRUE(pHandler);
    int iMutations = 0;
    int iFailedRequests = 0;
    for (const wchar_t* wszNamespace : kSourceNamespaces) {
        ComPtr<IWbemServices> pServices;
        ASSERT_EQ(ConnectWmi(wszNamespace, pServices), S_OK);
        CCBstr bstrText;
        ASSERT_EQ(CimStoreSerializeNamespace(wszNamespace, FALSE, bstrText.GetAddress()), S_OK);
        const std::wstring wsText(bstrText.Get(), bstrText.Length());
        std::set<std::wstring> classes;
        static const std::wregex instanceOf(LR"(instance of (\w+))");
        for (std::wsregex_iterator it(wsText.begin(), wsText.end(), instanceOf), end; it != end; ++it)
            classes.insert((*it)[1].str());
        for (const std::wstring& wsClass : classes) {
            WbemObjects instances;
            ASSERT_EQ(QueryAll(pServices.Get(), L"select * from " + wsClass, instances), S_OK) << Narrow(wsClass);
            if (instances.empty())
                continue;
            const ComPtr<IWbemClassObject> pOriginal = instances.front();
            const std::wstring wsRelPath = PropertyText(pOriginal.Get(), L"__RELPATH");
            int iIgnored = 0;
            const std::set<std::wstring> expected = EventsOutside(pHandler.Get(), wsRelPath, wsClass, &iIgnored);
            pOriginal->BeginEnumeration(WBEM_FLAG_NONSYSTEM_ONLY);
            std::vector<std::pair<std::wstring, CIMTYPE>> properties;
            CCBstr bstrName;
            CIMTYPE type = 0;
            while (pOriginal->Next(0, bstrName.GetAddress(), nullptr, &type, nullptr) == S_OK) {
                properties.emplace_back(bstrName.Get(), type);
                bstrName = CCBstr();
            }
            pOriginal->EndEnumeration();
            for (const auto& [wsProperty, propertyType] : properties) {
                for (BadValue& bad : BadValues(propertyType)) {
                    const std::string sCase = Narrow(wsClass + L"." + wsProperty) + " " + bad.sName;
                    ComPtr<IWbemClassObject> pBad;
                    ASSERT_EQ(pOriginal->Clone(pBad.GetAddressOf()), S_OK);
                    // A key cannot be bad in a stored instance; its value is what identifies it.
                    if (FAILED(pBad->Put(wsProperty.c_str(), 0, bad.pValue->Ptr(), 0)) ||
                        FAILED(pServices->PutInstance(pBad.Get(), WBEM_FLAG_UPDATE_ONLY, nullptr, nullptr)))
                        continue;
                    ++iMutations;
                    const LONG lObjects = CimStoreLiveObjects();
                    const std::set<std::wstring> reported = EventsOutside(pHandler.Get(), wsRelPath, wsClass, &iFailedRequests);
                    EXPECT_EQ(CimStoreLiveObjects(), lObjects) << sCase;
                    for (const std::wstring& wsEvent : expected)
                        EXPECT_TRUE(reported.count(wsEvent) || IsGatedBy(wsClass, wsEvent)) << sCase << ": lost "
                                                                                        << Narrow(wsEvent);
                    ASSERT_EQ(pServices->PutInstance(pOriginal.Get(), WBEM_FLAG_UPDATE_ONLY, nullptr, nullptr), S_OK);
                    if (HasFailure())
                        return;
                }
            }
        }
    }
    std::printf("bad input: %d bad values, %d requests answered a failure\n", iMutations, iFailedRequests);
    EXPECT_GT(iMutations, 200);
}

}  // namespace
