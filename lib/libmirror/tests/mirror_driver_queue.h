/*
 * mirror-driver's queued class: the commands that drive the library's
 * data queues (mirror_driver_queue.cc).
 */
#ifndef MIRROR_DRIVER_QUEUE_H
#define MIRROR_DRIVER_QUEUE_H

#include <string>

#define DRIVER_QUEUE_ID		4
#define DRIVER_QUEUE_NAME	"Driver queue"

/* True when cmd is one of the queue commands; it has run then. */
bool driver_queue_command(const std::string &cmd, const std::string &line);

#endif
