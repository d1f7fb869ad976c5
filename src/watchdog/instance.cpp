#include "instance.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <new>

namespace {
std::atomic<uint64_t> next_handle{1};
}

std_ring& std_ring::operator=(const std_ring& other)
{
    if (this == &other) return *this;
    head = other.head;
    tail = other.tail;
    buf.reset();
    if (other.buf) {
        buf.reset(new char[STD_BUF_SIZE]);
        memcpy(buf.get(), other.buf.get(), STD_BUF_SIZE);
    }
    return *this;
}

int instance_create(instance** holder)
{
    if (!holder) return -EINVAL;
    instance* inst = new (std::nothrow) instance;
    if (!inst) return -ENOMEM;
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(&inst->lock, &attr);
    pthread_mutexattr_destroy(&attr);
    *holder = inst;
    return 0;
}

int instance_destroy(instance** holder)
{
    if (!holder) return -EINVAL;
    instance* inst = *holder;
    *holder = nullptr;
    if (!inst) return -ENOMEM;
    pthread_mutex_destroy(&inst->lock);
    if (inst->wake_fd >= 0) close(inst->wake_fd);
    for (int i = 0; i < inst->cnt; i++) app_free(inst->apps[i]);
    delete inst;
    return 0;
}

app* app_new()
{
    app* record = new (std::nothrow) app;
    if (record) record->handle = next_handle.fetch_add(1);
    return record;
}

app* app_clone(const app& source)
{
    app* record = app_new();
    if (!record) return nullptr;
    record->type = source.type;
    record->config = source.config;
    record->bin_path = source.bin_path;
    record->envs = source.envs;
    record->alias = source.alias;
    record->err = source.err;
    record->thumb = source.thumb;
    record->raws = source.raws;
    record->child_conf_file = source.child_conf_file;
    record->numa_bind = source.numa_bind;
    record->t_run = source.t_run;
    for (int i = 0; i < STD_STREAMS; i++) record->std_bufs[i] = source.std_bufs[i];
    record->session_name = source.session_name;
    return record;
}

void app_free(app* record)
{
    if (!record) return;
    for (int fd : record->session_fds)
        if (fd >= 0) close(fd);
    delete record;
}

int instance_slot_append(instance* inst, app* record)
{
    return instance_slot_insert(inst, inst->cnt, record);
}

int instance_slot_insert(instance* inst, int idx, app* record)
{
    if (inst->cnt >= APPS_MAX) return -ENOMEM;
    if (idx < 0 || idx > inst->cnt) return -EINVAL;
    for (int i = inst->cnt; i > idx; i--) inst->apps[i] = inst->apps[i - 1];
    inst->apps[idx] = record;
    inst->cnt++;
    inst->amend++;
    return 0;
}

app* instance_slot_remove(instance* inst, int idx)
{
    if (idx < 0 || idx >= inst->cnt) return nullptr;
    app* record = inst->apps[idx];
    for (int i = idx; i < inst->cnt - 1; i++) inst->apps[i] = inst->apps[i + 1];
    inst->cnt--;
    inst->apps[inst->cnt] = nullptr;
    inst->amend++;
    return record;
}

void instance_slot_swap(instance* inst, int a, int b)
{
    // Slots from cnt on are never read; a swap with one would lose a record.
    if (a < 0 || b < 0 || a >= inst->cnt || b >= inst->cnt) return;
    app* tmp = inst->apps[a];
    inst->apps[a] = inst->apps[b];
    inst->apps[b] = tmp;
}
