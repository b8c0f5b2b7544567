// WQL over one namespace: SELECT, ASSOCIATORS OF and REFERENCES OF.
#pragma once

#include "cimstore/CimNamespace.h"

namespace cimstore {

// Results are copies; a SELECT with a property list keeps only those properties set (others null)
// and the key properties. WBEM_E_INVALID_QUERY, WBEM_E_INVALID_CLASS, WBEM_E_NOT_FOUND (no source).
HRESULT ExecuteWql(const CimNamespace& ns, std::wstring_view wsQuery, std::vector<CimInstance>& out);

}  // namespace cimstore
