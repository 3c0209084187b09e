// Subscriptions: an object's owner notifies those who asked for it, and hears whether there is anybody.
#include "ubusd.h"

#include <algorithm>

namespace {

ubusd_object *find_object(ubusd_server &server, uint32_t id) {
    auto found = server.objects.find(id);
    return found == server.objects.end() ? nullptr : &found->second;
}

bool has_subscribers(const ubusd_server &server, uint32_t target) {
    return std::any_of(server.subscriptions.begin(), server.subscriptions.end(),
                       [target](const ubusd_subscription &entry) { return entry.target == target; });
}

void tell_owner(const ubusd_object &target, bool active) {
    bus_builder out;
    bus_put_u32(out, UBUS_ATTR_OBJID, target.id);
    bus_put_u8(out, UBUS_ATTR_ACTIVE, active);
    bus_finish(out, UBUS_MSG_NOTIFY, ++target.owner->told, 0);
    ubusd_client_send_or_drop(*target.owner, std::move(out.bytes));
}

void tell_subscriber(const ubusd_object &subscriber, uint32_t target) {
    bus_builder out;
    bus_put_u32(out, UBUS_ATTR_OBJID, subscriber.id);
    bus_put_u32(out, UBUS_ATTR_TARGET, target);
    bus_finish(out, UBUS_MSG_UNSUBSCRIBE, ++subscriber.owner->told, 0);
    ubusd_client_send_or_drop(*subscriber.owner, std::move(out.bytes));
}

// The two objects of a request, or why not. A client subscribes with its own objects to those of others.
struct subscribe_request {
    int status = UBUS_STATUS_OK;
    ubusd_object *subscriber = nullptr;
    ubusd_object *target = nullptr;
};

subscribe_request read_request(ubusd_client &client, const bus_attrs &attrs) {
    if (!attrs[UBUS_ATTR_OBJID] || !attrs[UBUS_ATTR_TARGET])
        return {UBUS_STATUS_INVALID_ARGUMENT};
    ubusd_object *subscriber = find_object(*client.server, attrs.u32(UBUS_ATTR_OBJID));
    ubusd_object *target = find_object(*client.server, attrs.u32(UBUS_ATTR_TARGET));
    if (!subscriber || !target)
        return {UBUS_STATUS_NOT_FOUND};
    if (subscriber->owner != &client || target->owner == &client)
        return {UBUS_STATUS_INVALID_ARGUMENT};
    if (client.uid != 0 && (target->path.empty() || !ubusd_may(client, ubusd_right::subscribe, target->path)))
        return {UBUS_STATUS_NOT_FOUND};
    return {UBUS_STATUS_OK, subscriber, target};
}

} // namespace

int ubusd_handle_subscribe(ubusd_client &client, bus_frame &, const bus_attrs &attrs) {
    ubusd_server &server = *client.server;
    subscribe_request request = read_request(client, attrs);
    if (request.status != UBUS_STATUS_OK)
        return request.status;
    if (client.subscriptions >= ubusd_max_subscriptions)
        return UBUS_STATUS_NO_MEMORY;
    bool first = !has_subscribers(server, request.target->id);
    server.subscriptions.push_back({request.subscriber->id, request.target->id});
    client.subscriptions++;
    if (first)
        tell_owner(*request.target, true);
    return UBUS_STATUS_OK;
}

int ubusd_handle_unsubscribe(ubusd_client &client, bus_frame &, const bus_attrs &attrs) {
    ubusd_server &server = *client.server;
    subscribe_request request = read_request(client, attrs);
    if (request.status != UBUS_STATUS_OK)
        return request.status;
    auto entry = std::find_if(
        server.subscriptions.begin(), server.subscriptions.end(), [&request](const ubusd_subscription &one) {
            return one.subscriber == request.subscriber->id && one.target == request.target->id;
        });
    if (entry == server.subscriptions.end())
        return UBUS_STATUS_OK;
    server.subscriptions.erase(entry);
    client.subscriptions--;
    if (!has_subscribers(server, request.target->id))
        tell_owner(*request.target, false);
    return UBUS_STATUS_OK;
}

// Without NO_REPLY the notifier gets the ids that will answer, and their answers on the same sequence number.
int ubusd_handle_notify(ubusd_client &client, bus_frame &frame, const bus_attrs &attrs) {
    ubusd_server &server = *client.server;
    if (!attrs[UBUS_ATTR_OBJID] || !attrs[UBUS_ATTR_METHOD])
        return UBUS_STATUS_INVALID_ARGUMENT;
    ubusd_object *target = find_object(server, attrs.u32(UBUS_ATTR_OBJID));
    if (!target)
        return UBUS_STATUS_NOT_FOUND;
    if (target->owner != &client)
        return UBUS_STATUS_PERMISSION_DENIED;

    bool no_reply = attrs[UBUS_ATTR_NO_REPLY] && blob_get_u8(attrs[UBUS_ATTR_NO_REPLY]) != 0;
    bus_table ids;
    std::vector<uint32_t> subscribers;
    for (const ubusd_subscription &entry : server.subscriptions) {
        if (entry.target == target->id)
            subscribers.push_back(entry.subscriber);
    }
    for (uint32_t id : subscribers)
        blob_put_u32(&ids, 0, id);
    if (!no_reply) {
        bus_builder out;
        bus_put_u32(out, UBUS_ATTR_OBJID, target->id);
        bus_put_data(out, UBUS_ATTR_SUBSCRIBERS, ids.head);
        bus_put_u32(out, UBUS_ATTR_STATUS, UBUS_STATUS_OK);
        bus_finish(out, UBUS_MSG_STATUS, frame.seq, frame.peer);
        ubusd_client_send_or_drop(client, std::move(out.bytes));
    }
    for (uint32_t id : subscribers)
        ubusd_forward_call(*find_object(server, id), &client, frame.seq, attrs.text(UBUS_ATTR_METHOD),
                           attrs[UBUS_ATTR_DATA], no_reply);
    return ubusd_no_status;
}

void ubusd_remove_subscriptions(ubusd_server &server, const ubusd_object &object) {
    std::vector<ubusd_subscription> ended;
    std::erase_if(server.subscriptions, [&](const ubusd_subscription &entry) {
        bool ends = entry.target == object.id || entry.subscriber == object.id;
        if (ends)
            ended.push_back(entry);
        return ends;
    });
    for (const ubusd_subscription &entry : ended) {
        if (entry.subscriber == object.id) {
            object.owner->subscriptions--;
            ubusd_object *target = find_object(server, entry.target);
            if (target && !has_subscribers(server, entry.target))
                tell_owner(*target, false);
        } else if (ubusd_object *subscriber = find_object(server, entry.subscriber)) {
            subscriber->owner->subscriptions--;
            tell_subscriber(*subscriber, entry.target);
        }
    }
}
