// The bus daemon's input: two hostile clients send what the input says, and a third must not notice.
//
// The input is pieces of a byte for length and sender (bit 7: which client, bits 0-6: length / 8) and the
// bytes. The texts "OBJ0".."OBJ2" in a piece become the ids of the first objects of the clients,
// "CLI0".."CLI2" the clients' ids; random as they are, no input could name them otherwise.
#include <array>
#include <cstdint>
#include <cstring>

#include "../hostlibs/ubusd/ubusd.h"
#include "support/fuzz_root.h"

namespace {

void put_ids(std::string &piece, const std::array<ubusd_client *, 3> &clients) {
    for (size_t pos = 0; pos + 4 <= piece.size(); pos++) {
        std::string_view word = std::string_view(piece).substr(pos, 4);
        size_t index = static_cast<size_t>(word[3] - '0');
        if (index >= clients.size())
            continue;
        uint32_t id;
        if (word.starts_with("CLI"))
            id = clients[index]->id;
        else if (word.starts_with("OBJ") && !clients[index]->objects.empty())
            id = clients[index]->objects[0];
        else
            continue;
        id = cpu_to_be32(id);
        memcpy(piece.data() + pos, &id, sizeof(id));
    }
}

// What the daemon sends must itself be sound, message by message.
void check_queue(ubusd_client &client) {
    for (const std::vector<char> &sent : client.queue) {
        bus_reader reader;
        bus_frame frame;
        bus_attrs attrs;
        std::string_view in(sent.data(), sent.size());
        require(bus_reader_take(reader, in, frame) == bus_read::message && in.empty() &&
                bus_attrs_parse(frame.attr(), attrs));
    }
    client.queue.clear();
    client.queue_bytes = 0;
}

void add_bystander_object(ubusd_client &client) {
    bus_builder body;
    bus_put_text(body, UBUS_ATTR_OBJPATH, "bystander");
    bus_finish(body, UBUS_MSG_ADD_OBJECT, 1, 0);
    ubusd_client_input(client, std::string_view(body.bytes.data(), body.bytes.size()));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    ubusd_server server;
    std::array<ubusd_client *, 3> clients;
    for (ubusd_client *&client : clients)
        client = ubusd_client_add(server, -1);
    ubusd_client &bystander = *clients[2];
    add_bystander_object(bystander);

    while (size > 0 && !clients[0]->doomed && !clients[1]->doomed) {
        ubusd_client &sender = *clients[data[0] >> 7];
        size_t len = std::min<size_t>(size_t(data[0] & 0x7f) * 8, size - 1);
        std::string piece(reinterpret_cast<const char *>(data) + 1, len);
        data += 1 + len;
        size -= 1 + len;
        put_ids(piece, clients);
        ubusd_client_input(sender, piece);
        for (ubusd_client *client : clients)
            check_queue(*client);
    }
    require(!bystander.doomed && bystander.objects.size() == 1 && server.paths.count("bystander") == 1);
    ubusd_client_drop(*clients[0]);
    ubusd_client_drop(*clients[1]);
    ubusd_reap(server);
    require(server.clients.size() == 1 && server.objects.size() == 1);
    ubusd_stop(server);
    return 0;
}
