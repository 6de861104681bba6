#include "platform/thread_start.h"

int32_t start_thread(pthread_t *thread, void *(*body)(void *), void *argument)
{
    pthread_attr_t attributes;
    int error = pthread_attr_init(&attributes);
    if (error != 0) {
        return error;
    }
    error = pthread_attr_setstacksize(&attributes, THREAD_STACK_SIZE);
    if (error == 0) {
        error = pthread_create(thread, &attributes, body, argument);
    }
    pthread_attr_destroy(&attributes);
    return error;
}
