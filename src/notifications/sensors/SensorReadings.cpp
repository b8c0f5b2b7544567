#include "notifications/sensors/SensorReadings.h"

#include "access/ComHolders.h"
#include "core/EventValues.h"

namespace {

void ReadThreshold(CCWMIAccess& source, const char* szProperty, LONG* plValue)
{
    LONG lValue = 0;
    if (SUCCEEDED(ReadI4(source, szProperty, &lValue)))
        *plValue = lValue;
}

}  // namespace

void ReadSensorName(CCWMIAccess& source, VARIANT* pvName, const char* szQualifiedName)
{
    HRESULT hr = source.GetProperty("Name", pvName, false, 0);
    if (SUCCEEDED(hr) && V_VT(pvName) != VT_BSTR)
        hr = WBEM_E_TYPE_MISMATCH;
    RaiseIfFailed(hr, szQualifiedName, "Raising exception because error getting 'Name' property");
}

void CopySensorName(CCWMIAccess& source, CCWMIAccess& event, VARIANT* pvName, const char* szQualifiedName)
{
    ReadSensorName(source, pvName, szQualifiedName);
    RaiseIfFailed(event.SetProperty("Name", pvName), szQualifiedName,
                  "Raising exception because SetProperty on 'Name' failed");
}

LONG CopySensorId(CCWMIAccess& source, CCWMIAccess& event, const char* szQualifiedName)
{
    LONG lSensorId = 0;
    RaiseIfFailed(ReadI4(source, "SensorId", &lSensorId), szQualifiedName,
                  "Raising exception because error getting 'SensorId' property");
    RaiseIfFailed(PutI4(event, "SensorId", lSensorId), szQualifiedName,
                  "Raising exception because SetProperty on 'SensorId' failed");
    return lSensorId;
}

CSensorThresholds ReadThresholds(CCWMIAccess& source)
{
    CSensorThresholds limits;
    ReadThreshold(source, "UpperThresholdNonCritical", &limits.lUpperNonCritical);
    ReadThreshold(source, "UpperThresholdCritical", &limits.lUpperCritical);
    ReadThreshold(source, "UpperThresholdDefect", &limits.lUpperDefect);
    ReadThreshold(source, "LowerThresholdNonCritical", &limits.lLowerNonCritical);
    ReadThreshold(source, "LowerThresholdCritical", &limits.lLowerCritical);
    ReadThreshold(source, "LowerThresholdDefect", &limits.lLowerDefect);
    return limits;
}

void ClassifyReading(const CSensorMessages& messages, LONG lReading, const CSensorThresholds& limits,
                     unsigned long* pulStatus, LONG* plTextId)
{
    const struct {
        bool bReached;
        unsigned long ulStatus;
        LONG lTextId;
    } tests[] = {
        {lReading >= limits.lUpperNonCritical, 2, messages.lUpperNonCritical},
        {lReading >= limits.lUpperCritical, 3, messages.lUpperCritical},
        {lReading >= limits.lUpperDefect, 3, messages.lUpperDefect},
        {lReading <= limits.lLowerNonCritical, 2, messages.lLowerNonCritical},
        {lReading <= limits.lLowerCritical, 3, messages.lLowerCritical},
        {lReading <= limits.lLowerDefect, 3, messages.lLowerDefect},
    };
    *pulStatus = 1;
    *plTextId = messages.lNormal;
    for (const auto& test : tests) {
        if (test.bReached) {
            *pulStatus = test.ulStatus;
            *plTextId = test.lTextId;
        }
    }
}
