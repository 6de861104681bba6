#include "platform/thread_start.h"

int32_t start_thread(pthread_t *thread, void *(*body)(void *), void *argument)
{
    pthread_attr_t attributes;
    size_t size = 0;
    int error = pthread_attr_init(&attributes);
    if (error != 0) {
        return error;
    }
    (void)pthread_attr_getstacksize(&attributes, &size);
    if (size < THREAD_STACK_LEAST) {
        error = pthread_attr_setstacksize(&attributes, THREAD_STACK_LEAST);
    }
    if (error == 0) {
        error = pthread_create(thread, &attributes, body, argument);
    }
    (void)pthread_attr_destroy(&attributes);
    return error;
}
