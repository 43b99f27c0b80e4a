// Private to store/: the bit sets of study hash entries and of study queries.
#pragma once

// The bit of a modality code (the whole value of Modality (0008,0060), case-sensitive); 0 for a
// code that has none.
[[nodiscard]] unsigned modalityBit(const char* code);

// The character classes that occur in `text` (see studyhash). Bits 0, 27, 28 and 31 are never
// set.
[[nodiscard]] unsigned charClassBits(const char* text);
