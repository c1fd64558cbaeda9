// See pcapng.h. The numbers are those of the format and of its registry of link types.
#include "trace/pcapng.h"

#include <algorithm>
#include <cstdint>
#include <initializer_list>
#include <string_view>

namespace confsim::pcapng {

namespace {

constexpr std::uint32_t section_header = 0x0a0d0d0a;
constexpr std::uint32_t interface_description = 1;
constexpr std::uint32_t enhanced_packet = 6;

constexpr std::uint32_t byte_order = 0x1a2b3c4d;
constexpr std::uint16_t upper_pdu = 252;     // link type
constexpr std::uint16_t dissector_name = 12; // tag of an upper PDU
constexpr std::uint16_t option_end = 0;      // tag of an upper PDU likewise
constexpr std::uint16_t application = 4;     // option of the section
constexpr std::uint16_t interface_name = 2;  // option of the interface
constexpr std::uint16_t time_resolution = 9; // option of the interface
constexpr std::uint16_t packet_flags = 2;    // option of a packet
constexpr std::uint32_t inbound = 1;
constexpr std::uint32_t outbound = 2;

// Readers take a longer packet for damage.
constexpr std::size_t longest_packet = 262144;

template <typename Number>
void put(std::string &bytes, Number value)
{
    bytes.append(reinterpret_cast<const char *>(&value), sizeof value);
}

void pad(std::string &bytes)
{
    bytes.append((4 - bytes.size() % 4) % 4, '\0');
}

void put_option(std::string &bytes, std::uint16_t code, std::string_view value)
{
    put(bytes, code);
    put(bytes, static_cast<std::uint16_t>(value.size()));
    bytes.append(value);
    pad(bytes);
}

std::string block(std::uint32_t type, const std::string &content)
{
    const auto length = static_cast<std::uint32_t>(content.size() + 3 * sizeof(std::uint32_t));
    std::string made;
    made.reserve(length);
    put(made, type);
    put(made, length);
    made += content;
    put(made, length);
    return made;
}

// In network byte order.
void put_big(std::string &bytes, std::uint32_t value, int size)
{
    for (int shift = 8 * (size - 1); shift >= 0; shift -= 8) {
        bytes += static_cast<char>(value >> shift & 0xff);
    }
}

void put_text(std::string &bytes, const std::string &text)
{
    const std::size_t size = std::min<std::size_t>(text.size(), UINT16_MAX);
    put_big(bytes, static_cast<std::uint32_t>(size), 2);
    bytes.append(text, 0, size);
}

void put_tag(std::string &bytes, std::uint16_t tag, std::string_view value)
{
    put_big(bytes, tag, 2);
    put_big(bytes, static_cast<std::uint32_t>(value.size()), 2);
    bytes.append(value);
}

std::string as_upper_pdu(const traced_frame &frame)
{
    std::string made;
    put_tag(made, dissector_name, {"confsvc\0", 8}); // filled up to a multiple of four
    put_tag(made, option_end, {});
    const int flags = (frame.is_received ? 1 : 0) | (frame.id ? 2 : 0) | (frame.code ? 4 : 0) |
                      (frame.head ? 8 : 0);
    for (const int each : {1, static_cast<int>(frame.type), flags, 0}) {
        made += static_cast<char>(each);
    }
    for (const std::uint32_t each : {frame.peer.connection, frame.id.value_or(0),
                                     static_cast<std::uint32_t>(frame.code.value_or(0)),
                                     static_cast<std::uint32_t>(frame.size)}) {
        put_big(made, each, 4);
    }
    for (const std::string *each : {&frame.peer.name, &frame.method, &frame.path, &frame.text}) {
        put_text(made, *each);
    }
    if (frame.head) {
        msg_head_t head = *frame.head;
        head.length = static_cast<u32_t>(frame.body.size());
        put(made, head);
    }
    return made + frame.body;
}

} // namespace

std::string beginning()
{
    std::string section;
    put(section, byte_order);
    put(section, std::uint16_t{1}); // version 1.0
    put(section, std::uint16_t{0});
    put(section, std::int64_t{-1}); // its length is not known
    put_option(section, application, "confsim");
    put_option(section, option_end, {});

    std::string interface;
    put(interface, upper_pdu);
    put(interface, std::uint16_t{0});
    put(interface, static_cast<std::uint32_t>(longest_packet));
    put_option(interface, interface_name, "confsim");
    put_option(interface, time_resolution, "\x09"); // nanoseconds
    put_option(interface, option_end, {});
    return block(section_header, section) + block(interface_description, interface);
}

std::string packet(const traced_frame &frame)
{
    constexpr std::uint64_t billion = 1000000000;
    const std::uint64_t time = static_cast<std::uint64_t>(frame.time.tv_sec) * billion +
                               static_cast<std::uint64_t>(frame.time.tv_nsec);
    const std::string whole = as_upper_pdu(frame);
    const std::size_t kept = std::min(whole.size(), longest_packet);

    std::string made;
    made.reserve(kept + 64);
    put(made, std::uint32_t{0}); // the first and only interface
    put(made, static_cast<std::uint32_t>(time >> 32));
    put(made, static_cast<std::uint32_t>(time));
    put(made, static_cast<std::uint32_t>(kept));
    put(made, static_cast<std::uint32_t>(whole.size()));
    made.append(whole, 0, kept);
    pad(made);
    std::string flags;
    put(flags, frame.is_received ? inbound : outbound);
    put_option(made, packet_flags, flags);
    put_option(made, option_end, {});
    return block(enhanced_packet, made);
}

} // namespace confsim::pcapng
