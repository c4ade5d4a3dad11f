/* mbx_name - names of mailboxes: files in one directory, each with a lock beside it.
   The directory is what MBX_DIR says (not in a set-uid program), /run/mbx otherwise. */
#pragma once

#include "mbx_socket.h"

#include <string>

/* A name that is ours: clients connect to the listener while the lock is held. */
struct owned_name {
    std::string name;
    owned_fd listener;
    owned_fd lock;
};

/* Takes the name and starts to listen. Returns 0, or an errno value with `out` untouched: EADDRINUSE
   when its owner lives. The caller sees to it that this process does not hold the name already. */
int take_name(const char *name, owned_name &out);

/* Gives the name back and leaves nothing of it behind. Harmless on one that was never taken. */
void give_name(owned_name &owned);

/* Connects to the owner of the name. Empty with errno where that fails: ENOENT no such name or
   nobody behind it, EACCES, ETIMEDOUT. */
owned_fd connect_to_name(const char *name, time_point deadline);
