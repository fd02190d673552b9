// Known parts in a header of another writer. Its layout is not known, but what the daemon hands to
// that writer is: a phone record, a modem record and the custom block, each of its own shape.
#pragma once

#include <cstdint>
#include <optional>

#include "tools/muxz/model.h"
#include "tools/muxz/source.h"

namespace muxz {

// Fills what can be recognised in `header` and leaves the rest as it is:
//
//   custom entries      behind the tag "ZORVEXHEADERINFO", as long as they have a known shape
//   folder time, index  where the size of the phone's compress buffer stands in front of a time
//                       near `opened` and of the number `index`, both of which the name tells
//   modem information   where word b, word a, a time and a zero stand beside a record of 204 bytes
//                       that ends with word b
//
// The shapes have 64 fixed bits or more, so bytes of another meaning do not have them by chance.
void Recognise(Bytes bytes, std::optional<uint32_t> index, std::optional<PhoneTime> opened,
               HeaderFacts& header);

}  // namespace muxz
