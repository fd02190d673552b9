// Finds known parts in a header of unknown layout. The daemon passes a phone record, a modem record
// and the custom block to the log-format library. Each of these has a shape that can be recognised.
#pragma once

#include <cstdint>
#include <optional>

#include "tools/muxz/model.h"
#include "tools/muxz/source.h"

namespace muxz {

// Fills the fields of `header` that can be recognised in `bytes`. Does not change other fields.
//
//   custom entries      behind the tag "ZORVEXHEADERINFO", as long as they have a known shape
//   folder time, index  the size of the phone's compress buffer, a time near `opened`, and `index`
//   modem information   word b, word a, a time and a zero, beside a record of 204 bytes that ends
//                       with word b
//
// `index` and `opened` are those in the file name. Each shape has at least 64 fixed bits, so other
// bytes do not match it by chance.
void Recognise(Bytes bytes, std::optional<uint32_t> index, std::optional<PhoneTime> opened,
               HeaderFacts& header);

}  // namespace muxz
