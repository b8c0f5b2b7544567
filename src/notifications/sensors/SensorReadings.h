// Readings of the hardware sensors: a probe's six thresholds and their classification.
#pragma once

#include "access/CCWMIAccess.h"

#include <climits>

// The six thresholds of a probe; an absent one is never reached.
struct CSensorThresholds {
    LONG lUpperNonCritical = LONG_MAX;
    LONG lUpperCritical = LONG_MAX;
    LONG lUpperDefect = LONG_MAX;
    LONG lLowerNonCritical = LONG_MIN;
    LONG lLowerCritical = LONG_MIN;
    LONG lLowerDefect = LONG_MIN;
};

// Message numbers of a sensor, by the state that was reached.
struct CSensorMessages {
    LONG lNormal;
    LONG lUpperNonCritical;
    LONG lUpperCritical;
    LONG lUpperDefect;
    LONG lLowerNonCritical;
    LONG lLowerCritical;
    LONG lLowerDefect;
};

// Reads the probe's Name into name; raised unless it is a text.
void ReadSensorName(CCWMIAccess& source, VARIANT* pvName, const char* szQualifiedName);
// Reads the probe's Name into name, as ReadSensorName does, and writes it to the event.
void CopySensorName(CCWMIAccess& source, CCWMIAccess& event, VARIANT* pvName, const char* szQualifiedName);
// Reads the probe's SensorId, raised unless it is an integer, and writes it to the event.
LONG CopySensorId(CCWMIAccess& source, CCWMIAccess& event, const char* szQualifiedName);

// Reads the thresholds that the probe (the current object of source) has as integers.
CSensorThresholds ReadThresholds(CCWMIAccess& source);

// Status 1 normal, 2 warning, 3 critical, and the message number for it: the six tests in the
// order upper non-critical, critical, defect, lower non-critical, critical, defect, each later
// hit overriding the earlier ones; the limits are inclusive.
void ClassifyReading(const CSensorMessages& messages, LONG lReading, const CSensorThresholds& limits,
                     unsigned long* pulStatus, LONG* plTextId);

// The index argument of a sensor family: SensorId minus the family's base, wrapping in 32 bits
// like the register it came from, so the most negative ids cannot overflow.
inline LONG SensorIndex(LONG lSensorId, ULONG ulBase)
{
    return static_cast<LONG>(static_cast<ULONG>(lSensorId) - ulBase);
}
