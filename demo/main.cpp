// The demo engine's entry. See --help.
#include "RE_engine.h"

#include <cstdio>
#include <exception>

int main(int argc, char** argv)
{
    constexpr int runtime_error = 1;
    try {
        const RE_parsed_options parsed = parse_options(argc, argv);
        if (parsed.exit_status) {
            return *parsed.exit_status;
        }
        RE_stop_signal stop(parsed.options.duration);
        RE_engine engine(parsed.options, stop);
        engine.run();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "kav_demo_engine: %s\n", error.what());
        return runtime_error;
    }
    return 0;
}
