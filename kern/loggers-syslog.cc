// loggers-syslog.cc: the logger that writes to the system log.
#include "loggers.h"

#include <syslog.h>

#include "loggers-int.h"

using namespace kern_n::detail;

namespace {

struct facility_name_t {
    char const* name;
    int code;
};
facility_name_t const k_facilities[20] = {
    {"auth", LOG_AUTH},     {"authpriv", LOG_AUTHPRIV}, {"cron", LOG_CRON},     {"daemon", LOG_DAEMON},
    {"ftp", LOG_FTP},       {"kern", LOG_KERN},         {"lpr", LOG_LPR},       {"mail", LOG_MAIL},
    {"news", LOG_NEWS},     {"syslog", LOG_SYSLOG},     {"user", LOG_USER},     {"uucp", LOG_UUCP},
    {"local0", LOG_LOCAL0}, {"local1", LOG_LOCAL1},     {"local2", LOG_LOCAL2}, {"local3", LOG_LOCAL3},
    {"local4", LOG_LOCAL4}, {"local5", LOG_LOCAL5},     {"local6", LOG_LOCAL6}, {"local7", LOG_LOCAL7},
};

int syslog_priority(if_logger_t::msgclass_t c) {
    switch (c) {
    case 0: return LOG_EMERG;
    case 1: return LOG_ERR;
    case 2: return LOG_WARNING;
    case 3: return LOG_NOTICE;
    case 4: return LOG_INFO;
    default: return LOG_DEBUG;
    }
}

}  // namespace

// --- syslog logger -------------------------------------------------------------------

if_logger_t* syslog_logger_t::create(int facility) { return new syslog_logger_impl_t(facility); }

int syslog_logger_t::trans_facility(char const* name) {
    if (!name) name = "";
    for (facility_name_t const& f : k_facilities) {
        if (lstr_t::strcasecmp(name, f.name) == 0) return f.code;
    }
    return -1;
}

syslog_logger_impl_t::syslog_logger_impl_t(int facility_) : if_logger_t(INFO), facility(facility_) {
    level_filter_only_ = true;
    ::openlog("qvlsrv", LOG_PID | LOG_CONS, facility);
}

bool syslog_logger_impl_t::is_stderr() const { return false; }

size_t syslog_logger_impl_t::write(char const* text) {
    ::syslog(LOG_ERR | facility, "misuse syslog!");
    ::syslog(LOG_DEBUG | facility, "%s", text);
    return 0;
}

void syslog_logger_impl_t::log_va(msgclass_t c, char const* fmt, va_list ap) {
    if (!is_logged(c)) return;
    scratch_lease_t line(this_thread(), slot_line);
    format(c, line.get(), fmt, ap);
    ::syslog(syslog_priority(c) | facility, "%s", line.get().c_str());
}

void syslog_logger_impl_t::format(msgclass_t c, std::string& out, char const* fmt, va_list ap) {
    // The system log adds the time and the process id.
    char buf[16];
    thread_state_t& t = this_thread();
    renew_ids(t);
    char* p = put6(buf, static_cast<unsigned>(t.tid));
    *p++ = ' ';
    q_uint32_t const gen = generation;
    if (gen > 1) {
        p = put2(p, static_cast<int>(gen % 100));
        *p++ = 'g';
        *p++ = ' ';
    }
    out.append(buf, static_cast<size_t>(p - buf));
    lstr_t const name = thread_name();
    out.append(name.ptr(), name.length()).append("; ").append(severity(c), 3).append("; ");
    format_user(out, fmt, ap);
}
