// The agent's key text ("ctrl+shift+t", "Down Down Return"), as the press_key method reads it.

#include "FuzzCheck.h"
#include "core/control/InputError.h"
#include "core/control/KeyChord.h"
#include "core/runtime/Text.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace pavix;
    const auto input = fuzz::text(data, size);
    std::vector<KeyChord> chords;
    try {
        chords = KeyChords::parse(input);
    } catch (const InputError& refusal) {
        PAVIX_FUZZ_CHECK(std::string(refusal.what()).rfind("local_method_forbidden", 0) == 0,
                         "a refusal the agent is not told as forbidden");
        return 0;
    }
    PAVIX_FUZZ_CHECK(!chords.empty(), "no chord from accepted key text");
    for (const auto& chord : chords) {
        PAVIX_FUZZ_CHECK(!chord.key.empty(), "a chord without a key");
        // The text the log and the timeline show reads back as the same chord.
        const auto shown = KeyChords::text(chord);
        const auto reread = KeyChords::parse(shown);
        PAVIX_FUZZ_CHECK(reread.size() == 1 && reread.front() == chord,
                         "a chord whose text reads as another");
        (void)Text::characters(chord.key);
    }
    // The characters of any text: one per well-formed sequence or replaced byte.
    const auto characters = Text::characters(input);
    PAVIX_FUZZ_CHECK(characters.size() <= input.size(), "more characters than bytes");
    if (auto single = Text::singleCharacter(input)) {
        PAVIX_FUZZ_CHECK(characters.size() == 1 && characters.front() == *single,
                         "a single character read as others");
    }
    return 0;
}
