/*
 * What the files of this host share.
 */
#ifndef MINIMAL_HOST_H
#define MINIMAL_HOST_H

#include <nasctrl/nasctrl.h>

/* The service of this node: protocol module 0 serves addresses of the type that notices of other processes carry. */
#define NFS_MODULE 0U
#define NFS_PROTOCOL 3U
#define LOCAL_LS 1U

/* platform.c: starts a detached thread; 0, or an errno value. */
int startThread(void *(*body)(void *), void *arg);

/* config.c: the files of /opt are read below this folder. */
void setConfigurationRoot(const char *folder);

/* messages.c: hands a message to a module of the library, as another process would send it; the module's result. */
uint32_t sendMessage(uint32_t module, uint32_t opcode, void *buffer, uint32_t length);

/* node.c: gives the node another address of NFS_PROTOCOL. */
void addNodeAddress(const char *address);

/* notices.c: keeps what a thread of the library tells, until it is printed. */
void notice(const char *format, ...) __attribute__((format(printf, 1, 2)));
/* notices.c: waits until count notices have come, and prints them in the order of the alphabet. */
void printNotices(unsigned count);

#endif
