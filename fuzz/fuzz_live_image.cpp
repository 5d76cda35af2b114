// Prints every report on any bytes as the shared memory of an engine: as they are, and with a corrected header.
#include "harness.h"
#include "support/relaid_image.h"

#include <vector>

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    discard_output();
    return 0;
}

namespace {

void read_as_memory(const std::vector<unsigned char>& bytes)
{
    memory_reader reader(bytes.data(), bytes.size());
    if (reader.open() == 0) {
        exercise(reader);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    std::vector<unsigned char> bytes(data, data + size);
    read_as_memory(bytes);
    repair_image(bytes.data(), bytes.size(), RE_image_kind::live);
    read_as_memory(bytes);
    return 0;
}
