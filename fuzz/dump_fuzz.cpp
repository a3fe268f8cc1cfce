// libFuzzer target: arbitrary bytes to the inspector's decoder, as shmrmctl takes them: as the
// bytes of a live region (status, check) and as a dump file (decode, check), each decoded,
// checked and shown as tables and JSON. It must never read past its input nor crash. The seed
// corpus: regions left by model runs, in dump files (see fuzz/api_fuzz.cpp).
#include "records.h"
#include "render.h"
#include "snapshot.h"

namespace {

using namespace shmrmctl;

void view(ByteView bytes, std::optional<Capacities> layout, std::size_t salt) {
    const Snapshot s = decode(bytes, layout);
    check(bytes, layout);
    const ViewOptions options{static_cast<std::uint32_t>(salt), static_cast<std::int64_t>(salt)};
    TableStyle narrow;
    narrow.width = salt % 120;
    narrow.clip = salt % 2 == 0;
    TableStyle raw;
    raw.raw = true;
    for (const Table& t : tables(s, options)) {
        format_table(t);
        format_table(t, raw);
        format_table(
            compact(t), narrow,
            [](std::size_t row, std::size_t column) { return (row + column) % 3 == 0; }, "\x1b[7m",
            "\x1b[0m");
    }
    json_text(s, options);
    diff(s, Snapshot{});
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const ByteView bytes(reinterpret_cast<const std::byte*>(data), size);
    view(bytes, std::nullopt, size);
    std::string error;
    if (auto dump = parse_dump(bytes, error)) view(dump->bytes, dump->caps, size);
    return 0;
}
