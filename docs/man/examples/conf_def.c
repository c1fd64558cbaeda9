/* A program that reads messages by itself looks at their headers first. */
#include <conf_def.h>
#include <string.h>

/* The bytes of the whole message, or 0 when none begins here. */
unsigned long whole_message(const void *bytes)
{
    msg_head_t head;
    memcpy(&head, bytes, sizeof(head)); /* which may lie anywhere */
    return head.magic == MSG_MAGIC ? sizeof(head) + head.length : 0;
}
