// Mutators that keep a format whole, so that an input goes past the first check: attributes whose lengths
// fit, frames of the bus, lines of a configuration file, pieces. Bytes inside are libFuzzer's.
#include <cstring>
#include <random>

#include <endian.h>

#include "support/fuzz_target.h"

extern "C" size_t LLVMFuzzerMutate(uint8_t *data, size_t size, size_t max_size);

namespace {

using Random = std::minstd_rand;

size_t below(Random &random, size_t bound) {
    return random() % std::max<size_t>(bound, 1);
}

void mutate_bytes(std::string &bytes, size_t more = 16) {
    const size_t size = bytes.size();
    bytes.resize(size + more);
    bytes.resize(LLVMFuzzerMutate(reinterpret_cast<uint8_t *>(bytes.data()), size, size + more));
}

// Takes one out, doubles one, changes the places of two, or, false, does nothing.
template <typename Item> bool mutate_order(std::vector<Item> &list, Random &random) {
    const size_t at = below(random, list.size()), other = below(random, list.size());
    if (list.empty())
        return false;
    const size_t way = below(random, 8);
    if (way == 0)
        list.erase(list.begin() + static_cast<long>(at));
    else if (way == 1)
        list.insert(list.begin() + static_cast<long>(other), Item(list[at]));
    else if (way == 2)
        std::swap(list[at], list[other]);
    return way <= 2;
}

size_t give_back(const std::string &bytes, uint8_t *data, size_t size, size_t max_size) {
    if (bytes.empty() || bytes.size() > max_size)
        return LLVMFuzzerMutate(data, size, max_size);
    memcpy(data, bytes.data(), bytes.size());
    return bytes.size();
}

std::string_view view(const uint8_t *data, size_t size) {
    return {reinterpret_cast<const char *>(data), size};
}

// --- Attributes and frames ---

uint32_t word_at(std::string_view bytes, size_t at) {
    uint32_t word = 0;
    memcpy(&word, bytes.data() + at, sizeof(word));
    return be32toh(word);
}

void put_word(std::string &bytes, uint32_t word) {
    word = htobe32(word);
    bytes.append(reinterpret_cast<const char *>(&word), sizeof(word));
}

size_t padded(size_t size) {
    return (size + 3) & ~size_t{3};
}

// A frame is an attribute with a head in front of it: version, type, sequence number, peer.
struct Attribute {
    std::string head;
    uint32_t id = 0;
    bool named = false;
    std::string name, data;
    std::vector<Attribute> children; // instead of data
};

// Arrays and tables have others in them, and so have a frame and its signature, data and subscribers.
bool holds_others(const Attribute &attribute) {
    const uint32_t id = attribute.id;
    return !attribute.head.empty() || (attribute.named ? id == 1 || id == 2 : id == 6 || id == 7 || id == 11);
}

// What is sound at the beginning.
std::vector<Attribute> parse_attributes(std::string_view bytes, size_t head, int depth = 0) {
    std::vector<Attribute> list;
    while (bytes.size() >= head + 4) {
        const uint32_t word = word_at(bytes, head);
        Attribute attribute = {
            std::string(bytes.substr(0, head)), word >> 24 & 0x7f, word >> 31 != 0, "", "", {}};
        std::string_view data = bytes.substr(head);
        const size_t length = std::min<size_t>(std::max<size_t>(word & 0xffffff, 4), data.size());
        bytes.remove_prefix(std::min(head + padded(length), bytes.size()));
        data = data.substr(4, length - 4);
        if (attribute.named && data.size() >= 2) {
            const auto name =
                static_cast<size_t>(static_cast<uint8_t>(data[0]) << 8 | static_cast<uint8_t>(data[1]));
            attribute.name = data.substr(2, name);
            data.remove_prefix(std::min(padded(2 + name + 1), data.size()));
        }
        if (holds_others(attribute) && depth < 32)
            attribute.children = parse_attributes(data, 0, depth + 1);
        if (attribute.children.empty())
            attribute.data = data;
        list.push_back(attribute);
    }
    return list;
}

std::string print_attributes(const std::vector<Attribute> &list) {
    std::string bytes;
    for (const Attribute &attribute : list) {
        std::string data;
        if (attribute.named) {
            data = {static_cast<char>(attribute.name.size() >> 8), static_cast<char>(attribute.name.size())};
            data += attribute.name + '\0';
            data.resize(padded(data.size()));
        }
        data += attribute.children.empty() ? attribute.data : print_attributes(attribute.children);
        bytes += attribute.head;
        put_word(bytes, uint32_t{attribute.named} << 31 | attribute.id << 24 |
                            (static_cast<uint32_t>(data.size() + 4) & 0xffffff));
        bytes += data;
        bytes.resize(padded(bytes.size()));
    }
    return bytes;
}

void mutate_head(std::string &head, const std::string &other, Random &random) {
    if (below(random, 3) == 0)
        head.replace(4, 4, other, 4, 4);
    else if (below(random, 2) == 0)
        head[1] = static_cast<char>(below(random, 13));
    else
        head[3] = static_cast<char>(below(random, 8));
}

void mutate_attributes(std::vector<Attribute> &list, Random &random) {
    if (list.empty() || mutate_order(list, random))
        return;
    Attribute &attribute = list[below(random, list.size())], &other = list[below(random, list.size())];
    if (!attribute.children.empty() && below(random, 4) != 0)
        return mutate_attributes(attribute.children, random);
    if (!attribute.head.empty())
        return mutate_head(attribute.head, std::string(other.head), random);
    const size_t way = below(random, 6);
    if (way == 0)
        attribute.id = static_cast<uint32_t>(below(random, 16));
    else if (way == 1)
        attribute.name = std::string(other.name);
    else if (way == 2)
        attribute.children = std::vector<Attribute>(other.children);
    else
        mutate_bytes(way == 3 ? attribute.name : attribute.data);
}

template <size_t Head> size_t mutate_list(uint8_t *data, size_t size, size_t max_size, unsigned seed) {
    Random random(seed);
    std::vector<Attribute> list = parse_attributes(view(data, size), Head);
    mutate_attributes(list, random);
    return give_back(print_attributes(list), data, size, max_size);
}

// --- Lines ---

std::string mutate_lines(std::string_view text, Random &random) {
    static const char *const kFirst[] = {"config ", "\toption ", "\tlist ", "package "};
    std::vector<std::string> lines;
    for (size_t at = 0, end; at < text.size(); at = end + 1) {
        end = std::min(text.find('\n', at), text.size());
        lines.emplace_back(text.substr(at, end - at));
    }
    if (!lines.empty() && !mutate_order(lines, random)) {
        std::string &line = lines[below(random, lines.size())];
        const size_t word = line.find(' ');
        if (below(random, 4) == 0 && word != std::string::npos)
            line = kFirst[below(random, std::size(kFirst))] + line.substr(word + 1);
        else
            mutate_bytes(line);
    }
    std::string joined;
    for (const std::string &line : lines)
        joined += line + "\n";
    return joined;
}

} // namespace

size_t mutate_blobmsg(uint8_t *data, size_t size, size_t max_size, unsigned seed) {
    return mutate_list<0>(data, size, max_size, seed);
}

size_t mutate_bus_frames(uint8_t *data, size_t size, size_t max_size, unsigned seed) {
    return mutate_list<8>(data, size, max_size, seed);
}

size_t mutate_uci(uint8_t *data, size_t size, size_t max_size, unsigned seed) {
    Random random(seed);
    return give_back(mutate_lines(view(data, size), random), data, size, max_size);
}

size_t mutate_pieces(uint8_t *data, size_t size, size_t max_size, unsigned seed) {
    Random random(seed);
    std::vector<std::pair<char, std::string>> pieces;
    for (const FuzzPiece &piece : pieces_of(view(data, size)))
        pieces.emplace_back(piece.kind, piece.text);
    if (!pieces.empty() && !mutate_order(pieces, random)) {
        auto &[kind, text] = pieces[below(random, pieces.size())];
        if (below(random, 16) == 0)
            kind = static_cast<char>('a' + below(random, 16));
        else if (text.find("config ") != std::string::npos && below(random, 4) != 0)
            text = mutate_lines(text, random);
        else
            mutate_bytes(text, 64);
    }
    std::string bytes;
    for (const auto &[kind, text] : pieces)
        bytes.append({kPieceMark, kind}).append(text);
    return give_back(bytes, data, size, max_size);
}
