// Owners of what libyang makes, its complaints, and how schema nodes are made from its own.
#ifndef CONFSIM_YANG_H
#define CONFSIM_YANG_H

#include "model/schema.h"

#include <libyang/libyang.h>

#include <cstdlib>
#include <memory>
#include <string>

namespace confsim::yang {

struct deleter {
    void operator()(ly_ctx *context) const { ly_ctx_destroy(context); }
    void operator()(lyd_node *tree) const { lyd_free_all(tree); }
    void operator()(ly_in *input) const { ly_in_free(input, 0); }
    void operator()(char *text) const { std::free(text); }
};
using context_ptr = std::unique_ptr<ly_ctx, deleter>;
using data_ptr = std::unique_ptr<lyd_node, deleter>;
using input_ptr = std::unique_ptr<ly_in, deleter>;
using text_ptr = std::unique_ptr<char, deleter>;

template <typename Item, typename Visit>
void for_each_of(const Item *array, Visit visit) // as libyang counts them
{
    for (LY_ARRAY_COUNT_TYPE i = 0; array != nullptr && i < LY_ARRAY_COUNT(array); ++i) {
        visit(array[i]);
    }
}

// Why the last call failed; forgets it. The line is of no use where the text is one that we wrote.
enum class told { cause, place, line }; // each with what stands before it
[[nodiscard]] std::string complaint(const ly_ctx *context, told most);

// Throws that as failure when a call has failed.
void check(LY_ERR result, const ly_ctx *context, told most = told::place);

// The one above all top nodes of the modules. Throws failure when they are nested too deep.
[[nodiscard]] schema_node made_schema(const ly_ctx *context);

} // namespace confsim::yang

#endif
