#include "virtualization/constants.hpp"

namespace quorvane::virtualization {

namespace {

struct Alias {
    const char* short_name;
    const char* registry_name;
    const char* argument;
};

constexpr Alias aliases[] = {
    {"ewma", "longitudinal_ewma_67301c", "window"},
    {"zscore", "latitudinal_normalize_092871", nullptr},
    {"rank", "latitudinal_rank_688068", nullptr},
    {"sigmoid", "numerical_transcendental_2f4f61", nullptr},
};

constexpr const char* identity_expressions[] = {
    "",       "identity", "identity()",         "noop",
    "noop()", "none",     "recording_identity", "recording_identity()",
};

}  // namespace

Ref make_identity_expressions() {
    Ref expressions = require(PySet_New(nullptr));
    for (const char* text : identity_expressions) {
        require(PySet_Add(expressions.get(), capi::make_str(text).get()));
    }
    return expressions;
}

Ref make_child_rotation_aliases() {
    Ref table = capi::make_dict();
    for (const Alias& alias : aliases) {
        const Ref argument =
            alias.argument == nullptr ? capi::none() : capi::make_str(alias.argument);
        const Ref target =
            capi::make_tuple(capi::make_str(alias.registry_name).get(), argument.get());
        for (const char* name : {alias.short_name, alias.registry_name}) {
            require(PyDict_SetItemString(table.get(), name, target.get()));
        }
    }
    return table;
}

Ref make_expression_token_pattern(const State& state) {
    const Ref re = state.global(capi::Interned("re"));
    return call_method(re.get(), capi::Interned("compile"),
                       capi::make_str(R"(^([A-Za-z_][A-Za-z0-9_]*)(?:\(([^()]*)\))?$)").get());
}

}  // namespace quorvane::virtualization
