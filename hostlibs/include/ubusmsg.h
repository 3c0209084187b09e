/*
 * What travels on the bus. A message is an 8-byte header and one attribute of id 0 that holds the attributes
 * below.
 */
#ifndef UBUSMSG_H
#define UBUSMSG_H

#include <stdint.h>

/* Longest attribute of id 0, its own 4-byte header included. */
#define UBUS_MAX_MSGLEN 1048576

#define UBUS_MSG_VERSION 0

/* Ids below are the bus's own objects; those of clients, objects and types start here. */
#define UBUS_SYSTEM_OBJECT_EVENT 1
#define UBUS_SYSTEM_OBJECT_MONITOR 3
#define UBUS_SYSTEM_OBJECT_MAX 1024

#ifndef UBUS_UNIX_SOCKET
#define UBUS_UNIX_SOCKET "/var/run/ubus/ubus.sock"
#endif

/* Big-endian on the wire. */
struct ubus_msghdr {
    uint8_t version;
    uint8_t type;
    uint16_t seq;
    uint32_t peer;
} __attribute__((packed));

enum ubus_msg_type {
    UBUS_MSG_HELLO,
    UBUS_MSG_STATUS,
    UBUS_MSG_DATA,
    UBUS_MSG_PING,
    UBUS_MSG_LOOKUP,
    UBUS_MSG_INVOKE,
    UBUS_MSG_ADD_OBJECT,
    UBUS_MSG_REMOVE_OBJECT,
    UBUS_MSG_SUBSCRIBE,
    UBUS_MSG_UNSUBSCRIBE,
    UBUS_MSG_NOTIFY,
    UBUS_MSG_MONITOR,
    __UBUS_MSG_LAST,
};

enum ubus_msg_attr {
    UBUS_ATTR_UNSPEC,
    UBUS_ATTR_STATUS,      /* int32 */
    UBUS_ATTR_OBJPATH,     /* string */
    UBUS_ATTR_OBJID,       /* int32 */
    UBUS_ATTR_METHOD,      /* string */
    UBUS_ATTR_OBJTYPE,     /* int32 */
    UBUS_ATTR_SIGNATURE,   /* nested: a blobmsg table a method */
    UBUS_ATTR_DATA,        /* nested: blobmsg values */
    UBUS_ATTR_TARGET,      /* int32 */
    UBUS_ATTR_ACTIVE,      /* int8 */
    UBUS_ATTR_NO_REPLY,    /* int8 */
    UBUS_ATTR_SUBSCRIBERS, /* nested */
    UBUS_ATTR_USER,        /* string */
    UBUS_ATTR_GROUP,       /* string */
    UBUS_ATTR_MAX,
};

/* Of a MONITOR message. SEND: from the bus to the client. */
enum ubus_monitor_attr {
    UBUS_MONITOR_CLIENT, /* int32 */
    UBUS_MONITOR_PEER,   /* int32 */
    UBUS_MONITOR_SEND,   /* int8 */
    UBUS_MONITOR_SEQ,    /* int32 */
    UBUS_MONITOR_TYPE,   /* int32 */
    UBUS_MONITOR_DATA,   /* nested: the content of the message */
    UBUS_MONITOR_MAX,
};

enum ubus_msg_status {
    UBUS_STATUS_OK,
    UBUS_STATUS_INVALID_COMMAND,
    UBUS_STATUS_INVALID_ARGUMENT,
    UBUS_STATUS_METHOD_NOT_FOUND,
    UBUS_STATUS_NOT_FOUND,
    UBUS_STATUS_NO_DATA,
    UBUS_STATUS_PERMISSION_DENIED,
    UBUS_STATUS_TIMEOUT,
    UBUS_STATUS_NOT_SUPPORTED,
    UBUS_STATUS_UNKNOWN_ERROR,
    UBUS_STATUS_CONNECTION_FAILED,
    UBUS_STATUS_NO_MEMORY,
    UBUS_STATUS_PARSE_ERROR,
    UBUS_STATUS_SYSTEM_ERROR,
    __UBUS_STATUS_LAST,
};

#endif
