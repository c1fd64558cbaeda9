// Frames as packets of a pcapng file, for Wireshark with kits/wireshark/confsvc.lua.
//
// The file is in the byte order of the machine, as the format allows. Each packet is an "upper PDU"
// that names the dissector "confsvc", so none has to be chosen by hand, and holds
//
//     u8   version, 1        u8  kind: 0 request, 1 reply, 2 notification, 3 unreadable
//     u8   flags: 1 received by confsim, 2 with an id, 4 refused with a code, 8 with a frame
//     u8   0
//     u32  connection        u32 id        i32 code        u32 size on the wire
//     u16  length, and then as many bytes, of each: peer, method, path, text of a refusal
//
// in network byte order, and then the frame as it was sent, with the masked body and a header that
// fits that, or the text of a notification that has no frame. What the envelope says stands in
// front as well since its id is at the end of the body, and a long body is cut.
#ifndef CONFSIM_PCAPNG_H
#define CONFSIM_PCAPNG_H

#include "trace/traced_frame.h"

#include <string>

namespace confsim::pcapng {

// What the file begins with.
[[nodiscard]] std::string beginning();

[[nodiscard]] std::string packet(const traced_frame &frame);

} // namespace confsim::pcapng

#endif
