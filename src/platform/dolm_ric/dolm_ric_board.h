/* SPDX-License-Identifier: Apache-2.0 */
/* How the simulated board is played while it runs: the board's own protocol, for teskboard and
   tests.

   The board listens on a SOCK_SEQPACKET socket in the file system. One packet is one request: words
   of text with single spaces between them. One packet is its answer: "ok", followed by lines of the
   form "\nKEY=VALUE", or "error " and a sentence for people. A peer asks one thing at a time; a
   peer that doesn't take its answers is dropped.

     set PORTS [again] KEY=VALUE...           changes what the operations report; with "again" the
                                              events go out though nothing is new
     insert PORTS MODULE|- [KEY=VALUE...]     "-": the module that was there before, else an lc
     remove PORTS                             takes the module out; a link that was up falls
     event TYPE ID [VALUE [SPEED]]            a raw event, subscribed or not
     fail OPERATION CODE [COUNT|always [PORTS]]
     heal [OPERATION]                         forgets the failures, all or of one operation
     show PORT                                all values, raw, with the subscriptions of the port
     board                                    counts, calls, failures
     wait subscribed|unsubscribed PORTS port|link
     wait calls OPERATION COUNT               at least so many calls since the start
     wait idle                                all events taken, the event thread waits for more
                                              "wait" is answered when it has come true

   PORTS is a list such as 0-3,7. The keys, the units of their values, the modules and operations
   stand in board_text.cpp. Bytes other than printing ASCII, and spaces, stand as \xNN in a value, a
   backslash as \\. A request that changes anything answers with the lines "ports" and "events": how
   many ports it reached and how many events it put in the queue. */
#ifndef DOLM_RIC_BOARD_H
#define DOLM_RIC_BOARD_H

/* Where the board listens, unless the environment says otherwise. */
#define DOLM_RIC_BOARD_SOCKET "/run/dolm_ric/board.sock"
#define DOLM_RIC_BOARD_SOCKET_ENV "DOLM_RIC_SOCKET"

/* The file that describes the board; without it there are 16 ports with different modules. */
#define DOLM_RIC_BOARD_FILE_ENV "DOLM_RIC_BOARD"

/* No request and no answer is longer. */
#define DOLM_RIC_BOARD_PACKET_MAX 65536

#endif
