#include "json_out.h"

#include "times.h"

namespace vrixtool {

Json moment(long t) {
    if (!t) return nullptr;
    return Json{{"sec", t}, {"local", format_time(t)}};
}

void print_json(std::FILE *f, const Json &j) {
    std::fprintf(f, "%s\n", j.dump(-1, ' ', false, Json::error_handler_t::replace).c_str());
    std::fflush(f);
}

void add_json_flag(CLI::App *sub, bool &json) {
    sub->add_flag("--json", json, "print the result as one JSON document (keys: see README)");
}

} // namespace vrixtool
