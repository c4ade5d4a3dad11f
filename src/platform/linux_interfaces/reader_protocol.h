/* SPDX-License-Identifier: Apache-2.0 */
/* reader_protocol - the protocol between libdolm_ric and tesk-module-reader over a
   SOCK_SEQPACKET socket: one packet of requests, then one packet with as many answers, in the
   same order. Both processes run on the same machine, so numbers are in its byte order. No
   state. */
#ifndef READER_PROTOCOL_H
#define READER_PROTOCOL_H

#include <stdint.h>

/* Where the reader listens, unless the environment names another socket. */
#define READER_SOCKET "/run/tesk-module-reader/socket"
#define READER_SOCKET_ENV "DOLM_RIC_READER"

#define READER_LONGEST_READ 32
#define READER_MOST_REQUESTS 16

/* An address that no module has: the request is about the reader itself, and `offset` selects the
   question. `length` is that of a checksum, all other fields are 0. */
#define READER_ITSELF 0
#define READER_CHECKSUM_LENGTH 8
enum reader_question {
    READER_CONFIGURATION = 0, /* returns the checksum of its configuration, or 0 */
    READER_END = 1, /* returns that checksum, and the reader ends, since the configuration was
                       replaced. The next reader takes over the interface of each port. */
};

/* Bytes of a module's memory. A range never crosses byte 128; below it page and bank are 0. At
   address 0x51 there are no pages. */
struct reader_request {
    uint16_t port;
    uint8_t address; /* 0x50 or 0x51, or READER_ITSELF */
    uint8_t bank;
    uint8_t page;
    uint8_t offset;
    uint8_t length; /* 1 to READER_LONGEST_READ */
    uint8_t zero;
};

/* `error` is an errno, among them
   EINVAL     a request that breaks the rules above
   ENOENT     a port that the configuration doesn't have, or that has no module to be read here
   ENODEV     a port whose interface isn't there; `interface` is 0 then
   EOPNOTSUPP an interface without a module, or whose driver refuses this reading
   ENXIO      no module, or one that doesn't answer
   EPERM      the reader lacks the right, at all interfaces
   ECANCELED  not done, as an earlier request of the packet for the same port had failed */
struct reader_answer {
    int32_t error;
    int32_t interface; /* index of the interface that was asked; 0 for a module on a bus */
    uint8_t bytes[READER_LONGEST_READ];
};

#ifdef __cplusplus
static_assert(sizeof(reader_request) == 8);
static_assert(sizeof(reader_answer) == 40);
#endif
#endif
