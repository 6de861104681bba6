#include "pool/task_slots.h"

#include <errno.h>
#include <string.h>
#include <sys/ipc.h>
#include <sys/sem.h>

#include "log/log.h"
#include "platform/error_text.h"

static const char CREATION[] = "pelkin_create_a_thread";

// As semctl(2) wants the caller to define it.
union semun {
    int val;
    struct semid_ds *buf;
    unsigned short *array;
};

int32_t pelkin_make_task_slots(void)
{
    const int sem_id = semget(IPC_PRIVATE, 1, 0777);
    if (sem_id < 0) {
        PELKIN_LOG_AS(CREATION, ERROR, "Unable to create semaphore: %s", error_text(errno));
        return -1;
    }
    const union semun slots = {.val = PELKIN_TASK_SLOTS};
    if (semctl(sem_id, 0, SETVAL, slots) < 0) {
        PELKIN_LOG_AS(CREATION, ERROR, "semctl() error: %s", error_text(errno));
        pelkin_remove_task_slots(sem_id);
        return -1;
    }
    PELKIN_LOG_AS(CREATION, DEBUG, "Init thread task slots to %d", pelkin_count_task_slots(sem_id));
    return sem_id;
}

void pelkin_remove_task_slots(int32_t sem_id)
{
    (void)semctl(sem_id, 0, IPC_RMID);
}

static int32_t change(int32_t sem_id, short by)
{
    struct sembuf operation = {.sem_num = 0, .sem_op = by, .sem_flg = IPC_NOWAIT | SEM_UNDO};
    return semop(sem_id, &operation, 1);
}

int32_t pelkin_take_task_slot(int32_t sem_id)
{
    return change(sem_id, -1);
}

void pelkin_return_task_slot(int32_t sem_id)
{
    (void)change(sem_id, 1);
}

int32_t pelkin_count_task_slots(int32_t sem_id)
{
    return semctl(sem_id, 0, GETVAL);
}
