// Buffer, list, hash table and vector under any operations, each beside a container of the standard
// library.
#include "conf_buffer.h"
#include "conf_hash.h"
#include "conf_vec.h"
#include "fuzz.h"

#include <array>
#include <list>
#include <map>

namespace {

void check_buffer(fuzz::input &in)
{
    conf_buffer_t *buffer = conf_buffer_create(in.ConsumeIntegralInRange(0, 10000));
    std::string expected;
    while (!in.ended()) {
        const int at = in.ConsumeIntegralInRange(-2, static_cast<int>(expected.size()) + 2);
        const auto place = static_cast<std::size_t>(std::max(at, 0));
        const bool is_inside = at >= 0 && place <= expected.size();
        std::string more = in.text(300);
        const int size = static_cast<int>(more.size());
        const int count = in.rarely(8) ? in.ConsumeIntegral<int>() : size;
        const std::size_t what = in.below(5);
        if (what == 0) {
            MUST(conf_buffer_append(&buffer, more.data(), size) == 0);
            expected += more;
        } else if (what == 1) {
            MUST((conf_buffer_insert(&buffer, at, more.data(), size) == 0) == is_inside);
            expected.insert(std::min(place, expected.size()), is_inside ? more : "");
        } else if (what == 2) {
            conf_buffer_remove(buffer, at, count);
            expected.erase(std::min(place, expected.size()),
                           static_cast<std::size_t>(is_inside ? std::max(count, 0) : 0));
        } else if (what == 3) {
            conf_buffer_slim(&buffer);
        } else {
            conf_buffer_flush(buffer);
            expected.clear();
        }
        const auto length = static_cast<std::size_t>(conf_buffer_length(buffer));
        MUST(conf_buffer_length(buffer) < buffer->total);
        const std::string_view held(conf_buffer_data(buffer), length);
        MUST(held == expected && held.data()[length] == '\0', std::string(held), expected);
    }
    conf_buffer_destroy(buffer);
}

void check_list(fuzz::input &in)
{
    std::array<conf_dlq_node_t, 6> nodes{};
    conf_dlq_list_t list{};
    std::list<conf_dlq_node_t *> expected;
    while (!in.ended()) {
        conf_dlq_node_t *node = &nodes[in.below(nodes.size())];
        conf_dlq_node_t *other = in.rarely(4) ? nullptr : &nodes[in.below(nodes.size())];
        const auto position = std::find(expected.begin(), expected.end(), other);
        const bool can = other == nullptr || position != expected.end();
        if (node->list != nullptr) {
            expected.remove(node);
            conf_dlq_remove(&list, node);
            conf_dlq_remove(&list, node); // changes nothing
        } else {
            MUST((conf_dlq_insert(&list, other, node) == 0) == can);
            expected.insert(position, can ? 1 : 0, node);
        }
        conf_dlq_node_t *last = nullptr;
        for (conf_dlq_node_t *each : expected) {
            MUST(each == (last == nullptr ? conf_dlq_head(&list) : conf_dlq_next(&list, last)));
            MUST(conf_dlq_prev(&list, each) == last);
            last = each;
        }
        MUST(list.num == expected.size() && conf_dlq_tail(&list) == last);
    }
}

void check_hash(fuzz::input &in)
{
    conf_hash_tbl_t *table = conf_hash_create(static_cast<u32_t>(1 + in.below(20)));
    std::map<std::string, std::string> expected;
    while (!in.ended()) {
        std::string key = in.ConsumeRandomLengthString(3).c_str();
        std::string value = in.ConsumeRandomLengthString(20);
        const auto size = static_cast<u32_t>(value.size());
        if (in.rarely(3)) {
            conf_hash_del(table, key.data());
            expected.erase(key);
        } else {
            MUST(conf_hash_add(table, key.data(), value.data(), size) == 0);
            expected[key] = value;
        }
        key = in.ConsumeRandomLengthString(3).c_str();
        MUST((conf_hash_get(table, key.data()) != nullptr) == expected.contains(key), key);
        for (const auto &[name, text] : expected) {
            const auto *got = static_cast<char *>(conf_hash_get(table, std::string(name).data()));
            MUST(got != nullptr && std::equal(text.begin(), text.end(), got), name);
        }
    }
    for (const auto &[name, text] : expected) {
        conf_hash_del(table, std::string(name).data());
    }
    conf_hash_destroy(table);
}

void check_vector(fuzz::input &in)
{
    std::vector<void *> expected(1 + in.below(5));
    conf_vec_t *vector = conf_vector_create(static_cast<u32_t>(expected.size()));
    while (!in.ended()) {
        const auto index = in.ConsumeIntegralInRange<std::size_t>(0, expected.size() + 1);
        if (in.rarely(3)) {
            const bool is_inside = index < expected.size();
            MUST((conf_vector_remove(vector, static_cast<u32_t>(index)) == 0) == is_inside);
            expected[is_inside ? index : 0] = is_inside ? nullptr : expected[0];
        } else {
            const auto slot = std::find(expected.begin(), expected.end(), nullptr);
            const auto place = static_cast<std::size_t>(slot - expected.begin());
            expected.resize(expected.size() * (slot == expected.end() ? 2 : 1));
            expected[place] = &expected;
            MUST(conf_vector_add(&vector, &expected) == static_cast<int>(place));
        }
        MUST(conf_vector_size(vector) == static_cast<int>(expected.size()));
        MUST(conf_vector_get(vector, static_cast<u32_t>(expected.size())) == nullptr);
        for (std::size_t i = 0; i < expected.size(); ++i) {
            MUST(conf_vector_get(vector, static_cast<u32_t>(i)) == expected[i]);
        }
    }
    conf_vector_destroy(vector, nullptr);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::input in(data, size);
    in.PickValueInArray({check_buffer, check_list, check_hash, check_vector})(in);
    return 0;
}
