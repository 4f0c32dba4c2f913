// socket_names.h - which host name each connected socket belongs to.

#ifndef SOCKET_NAMES_H
#define SOCKET_NAMES_H

#include <string>

// The name that the socket's address was resolved from; "" when there is none.
std::string socket_name(int fd);

#endif
