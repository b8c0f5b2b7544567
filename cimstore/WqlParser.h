// Parsed form of a WQL query.
#pragma once

#include "cimstore/CimTypes.h"

#include <memory>

namespace cimstore {

enum class WqlOp { Eq, Ne, Lt, Gt, Le, Ge };

struct WqlExpr {
    enum class Kind { And, Or, Not, Compare, IsNull, IsNotNull, Isa } kind = Kind::Compare;
    std::unique_ptr<WqlExpr> left;
    std::unique_ptr<WqlExpr> right;
    std::wstring property;
    WqlOp op = WqlOp::Eq;  // property op literal (sides swapped when the literal came first)
    CimScalar literal;
};

struct WqlQuery {
    enum class Kind { Select, Associators, References } kind = Kind::Select;
    // SELECT
    std::vector<std::wstring> properties;  // empty for *
    std::wstring className;
    std::unique_ptr<WqlExpr> where;
    // ASSOCIATORS OF / REFERENCES OF
    std::wstring sourcePath;
    std::wstring resultClass;
    std::wstring assocClass;
    std::wstring role;
    std::wstring resultRole;
    std::wstring requiredQualifier;
    std::wstring requiredAssocQualifier;
    bool classDefsOnly = false;
};

// WBEM_E_INVALID_QUERY for anything that is not WQL this store understands.
HRESULT ParseWql(std::wstring_view wsText, WqlQuery& out);

}  // namespace cimstore
