// MOF text of classes and instances that the compiler reads back to equal objects.
#pragma once

#include "cimstore/CimInstance.h"

namespace cimstore {

// "text" with MOF escapes.
std::wstring MofString(std::wstring_view text);
std::wstring MofValue(const CimValue& value, CIMTYPE type);
// "[A, B(1) : ToInstance]" with the local qualifiers only; empty when there are none.
std::wstring MofQualifiers(const QualifierSet& qualifiers);
void WriteClassMof(const CimClass& cls, std::wstring& out);
// GetObjectText: properties that differ from the class default, and local qualifiers.
void WriteInstanceMof(const CimInstance& instance, std::wstring& out);

}  // namespace cimstore
