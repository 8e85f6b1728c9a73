/*
 * OS wrapper: memory, joinable tasks, mutexes and one-slot message queues.
 * Objects are named by 32-bit ids; 0 is never a valid id. Calls that can fail
 * return 0 on success and an error number otherwise.
 */
#ifndef ZELOSW_H
#define ZELOSW_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define ZELOSW_OK 0
#define ZELOSW_NO_MESSAGE 110 /* non-waiting receive on an empty queue */
#define ZELOSW_WAIT_FOREVER (-1)

/* Memory. Free accepts NULL; pool is always 0. */
void *zelOSWSubAllocMem(uint32_t size);
int32_t zelOSWOrgFreeMemPart(uint32_t pool, void *block);

/* A task body receives the ten arguments given at creation. */
typedef void (*ZEL_OSW_TASK_ENTRY)(void *a1, void *a2, void *a3, void *a4, void *a5, void *a6,
                                   void *a7, void *a8, void *a9, void *a10);

int32_t zelOSWCreateJoinTask(uint32_t *task_id, const char *name, int32_t priority,
                             uint32_t stack_size, ZEL_OSW_TASK_ENTRY entry, int32_t options,
                             void *a1, void *a2, void *a3, void *a4, void *a5, void *a6, void *a7,
                             void *a8, void *a9, void *a10);
int32_t zelOSWWaitTask(uint32_t task_id, int32_t timeout);
void zelOSWExitTask(int32_t code);
int32_t zelOSWLockTask(void);
int32_t zelOSWUnlockTask(void);

int32_t zelOSWCreateMutexSem(uint32_t *mutex_id, uint32_t options, uint32_t initial);
int32_t zelOSWRequestMutexSem(uint32_t mutex_id, int32_t timeout);
int32_t zelOSWReleaseMutexSem(uint32_t mutex_id);

int32_t zelOSWCreateMsgQueue(uint32_t *queue_id, uint32_t max_messages, uint32_t message_size,
                             uint32_t options);
int32_t zelOSWSendMsgQueue(uint32_t queue_id, const void *message, uint32_t size, int32_t timeout,
                           uint32_t priority);
int32_t zelOSWReceiveMsgQueue(uint32_t queue_id, void *buffer, uint32_t size, int32_t timeout);
int32_t zelOSWDeleteMsgQueue(uint32_t queue_id);

#ifdef __cplusplus
}
#endif

#endif
