#include "ipc_service.h"

#include "protocol.h"

#include "tarn_data.h"
#include "tarn_log.h"

#include <cstring>
#include <utility>

namespace gatewayd
{
namespace
{

/** Results in the making; freed unless they are handed out. */
class result_list
{
public:
    result_list() = default;
    result_list(const result_list &) = delete;
    result_list &operator=(const result_list &) = delete;
    ~result_list()
    {
        tarn_data_destroy(head_);
    }

    void add(const char *text)
    {
        const auto size = static_cast<uint32_t>(std::strlen(text) + 1);
        append(tarn_data_alloc(TARN_DATA_TYPE_STRING, text, &size));
    }
    void add(const point &shown)
    {
        append(tarn_data_alloc(TARN_DATA_TYPE_DOUBLE, &shown.value, nullptr));
        append(tarn_data_alloc(TARN_DATA_TYPE_UINT64, &shown.time_ms, nullptr));
    }
    /** Hands them out.
     *  @param out  null: nobody wants them */
    int32_t hand_to(TARN_DATA *out)
    {
        if (!whole_)
        {
            return GATEWAYD_FAILED;
        }
        if (out != nullptr)
        {
            *out = std::exchange(head_, nullptr);
        }
        return GATEWAYD_OK;
    }

private:
    void append(TARN_DATA added)
    {
        if (added == TARN_INVALID_HANDLE)
        {
            whole_ = false;
        }
        else if (head_ == TARN_INVALID_HANDLE)
        {
            head_ = added;
        }
        else if (!tarn_data_add_tail(head_, added))
        {
            tarn_data_destroy(added);
            whole_ = false;
        }
    }

    TARN_DATA head_ = TARN_INVALID_HANDLE;
    bool whole_ = true;
};

/** The text of a string value, without a NUL behind it. */
bool read_name(TARN_DATA value, std::string_view *out)
{
    if (value == TARN_INVALID_HANDLE || tarn_data_get_type(value) != TARN_DATA_TYPE_STRING)
    {
        return false;
    }
    const uint32_t size = tarn_data_get_str_len(value);
    *out = size != 0 ? std::string_view(tarn_data_get_str_buffer(value), size) : "";
    out->remove_suffix(out->ends_with('\0') ? 1 : 0);
    return true;
}

bool read_double(TARN_DATA value, double *out)
{
    return value != TARN_INVALID_HANDLE && tarn_data_get_type(value) == TARN_DATA_TYPE_DOUBLE &&
           tarn_data_get_value(value, out, nullptr);
}

TARN_DATA next_of(TARN_DATA value)
{
    return value != TARN_INVALID_HANDLE ? tarn_data_get_next(value) : TARN_INVALID_HANDLE;
}

} // namespace

bool ipc_service::open(const char *name, uint32_t max_conn)
{
    const tarn_ipc_server_callbacks callbacks = {on_connect, this};
    server_ = tarn_ipc_create(name, max_conn, &callbacks);
    if (server_ == TARN_INVALID_HANDLE)
    {
        TARN_LOG_ERROR("cannot serve IPC as %s", name);
        return false;
    }
    TARN_LOG_INFO("IPC as %s", name);
    return true;
}

void ipc_service::close()
{
    if (server_ != TARN_INVALID_HANDLE)
    {
        (void)tarn_ipc_destroy(server_);
        server_ = TARN_INVALID_HANDLE;
    }
}

int32_t ipc_service::on_connect(TARN_IPC, const char *, tarn_ipc_callbacks *callbacks, void *self,
                                TARN_IPC)
{
    *callbacks = {on_connected, on_disconnected, on_call, self};
    return 0;
}

void ipc_service::on_connected(TARN_IPC, const char *, void *self, TARN_IPC)
{
    static_cast<ipc_service *>(self)->gate_.count_connection(1);
}

void ipc_service::on_disconnected(TARN_IPC, const char *, void *self, TARN_IPC)
{
    static_cast<ipc_service *>(self)->gate_.count_connection(-1);
}

int32_t ipc_service::on_call(TARN_IPC, uint32_t function, TARN_DATA args, TARN_DATA *results,
                             void *self)
{
    auto *const me = static_cast<ipc_service *>(self);
    const work_gate::pass pass(me->gate_);
    return pass.is_inside() ? me->answer(function, args, results) : GATEWAYD_ENDING;
}

int32_t ipc_service::answer(uint32_t function, TARN_DATA args, TARN_DATA *results)
{
    switch (function)
    {
    case GATEWAYD_FUNC_ECHO:
        if (results != nullptr)
        {
            *results = args; // a result may be an argument
        }
        return GATEWAYD_OK;
    case GATEWAYD_FUNC_GET:
        return get(args, results);
    case GATEWAYD_FUNC_SET:
        return set(args);
    case GATEWAYD_FUNC_LIST:
        return list(results);
    default:
        return GATEWAYD_NO_SUCH_CALL;
    }
}

int32_t ipc_service::get(TARN_DATA args, TARN_DATA *results)
{
    std::string_view name;
    point found = {};
    if (!read_name(args, &name))
    {
        return GATEWAYD_WRONG_ELEMENT;
    }
    if (!points_.get(name, &found))
    {
        return GATEWAYD_NO_SUCH_POINT;
    }
    result_list made;
    made.add(found);
    return made.hand_to(results);
}

int32_t ipc_service::set(TARN_DATA args)
{
    std::string_view name;
    double value = 0;
    if (!read_name(args, &name) || !read_double(next_of(args), &value))
    {
        return GATEWAYD_WRONG_ELEMENT;
    }
    return code_of(points_.set(name, value));
}

int32_t ipc_service::list(TARN_DATA *results)
{
    const point_list points(points_);
    if (!points.is_whole())
    {
        return GATEWAYD_FAILED;
    }
    result_list made;
    for (const point &shown : points.all())
    {
        made.add(shown.name);
        made.add(shown);
    }
    return made.hand_to(results);
}

} // namespace gatewayd
