/* SPDX-License-Identifier: Apache-2.0 */
/* The control protocol of the simulated board, for teskboard and tests.

   The board listens on a SOCK_SEQPACKET socket in the file system. One packet is one command: words
   of text with single spaces between them. One packet is its answer: "ok", followed by lines of the
   form "\nKEY=VALUE", or "error " and a sentence for people. A peer sends its next command after
   the answer; a peer that doesn't take its answers is disconnected. While 1,024 events or more wait
   to be taken, a command that may queue events is not carried out. Of more than 64 peers one is
   disconnected, of the process that has most of them.

     set PORTS [again] KEY=VALUE...           changes what the operations report; with "again"
                                              events are queued even if nothing changes
     insert PORTS MODULE|- [KEY=VALUE...]     "-": the previous module, else an lc
     remove PORTS                             removes the module; a link that was up goes down
     event TYPE ID [VALUE [SPEED]]            queues an event, subscribed or not
     fail OPERATION CODE [COUNT|always [PORTS]]
     heal [OPERATION]                         removes faults, all or of one operation
     show PORT                                all values, raw, and the port's subscriptions
     board                                    counts, calls, faults
     wait subscribed|unsubscribed PORTS port|link
     wait calls OPERATION COUNT               at least so many calls since the start
     wait idle                                all events taken, the event thread waits for more
                                              "wait" is answered once it is true

   PORTS is a list such as 0-3,7; a port that is named twice counts once. The keys, the units of
   their values, the modules and operations stand in vocabulary.cpp. In a value, non-printable and
   non-ASCII bytes and spaces are written as \xNN, a backslash as \\. A command that changes
   something answers with the lines "ports" and "events": how many ports it changed and how many
   events it queued. */
#ifndef DOLM_RIC_CONTROL_PROTOCOL_H
#define DOLM_RIC_CONTROL_PROTOCOL_H

/* Where the board listens, unless the environment variable names another path. */
#define DOLM_RIC_BOARD_SOCKET "/run/dolm_ric/board.sock"
#define DOLM_RIC_BOARD_SOCKET_ENV "DOLM_RIC_SOCKET"

/* The file that describes the board; without it there are 16 ports with different modules. */
#define DOLM_RIC_BOARD_FILE_ENV "DOLM_RIC_BOARD"

/* The port map, see port_map.h; without it "ports" in the directory of the socket. */
#define DOLM_RIC_PORT_MAP_ENV "DOLM_RIC_PORT_MAP"

/* The longest command or answer. */
#define DOLM_RIC_BOARD_PACKET_MAX 65536

#endif
