#include "spool.h"

#include "protocol.h"
#include "settings.h"

#include "tarn_log.h"

#include <algorithm>
#include <cstdio>

namespace gatewayd
{
namespace
{

/** The question comes without a context, so this is the process's. */
const char *spool = "";

} // namespace

void set_spool(const char *directory)
{
    spool = directory;
}

bool has_spool()
{
    return spool[0] != '\0';
}

bool is_file_name(std::string_view name)
{
    const auto is_refused = [](char c) {
        return static_cast<unsigned char>(c) < ' ' || c == 0x7f || c == '/' || c == '\\';
    };
    return !name.empty() && name.size() <= 255 && name.front() != '.' &&
           name.find("..") == std::string_view::npos &&
           std::none_of(name.begin(), name.end(), is_refused);
}

int choose_destination(const char *file_name, uint32_t file_size, const char **dst_path, void *)
{
    if (!is_file_name(file_name))
    {
        TARN_LOG_WARN("file '%s' refused, not a plain file name", shown_text(file_name).c_str());
        return GATEWAYD_WRONG_NAME;
    }
    // Copied when this has returned; connections ask on threads of their own.
    static thread_local char path[max_path];
    (void)std::snprintf(path, sizeof path, "%s/%s", spool, file_name);
    TARN_LOG_INFO("receiving %s, %u bytes", path, file_size);
    *dst_path = path;
    return 0;
}

} // namespace gatewayd
