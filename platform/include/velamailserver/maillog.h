#pragma once

/// Writes one record to the mail log, formatted like printf, at a syslog priority without a
/// facility (0 LOG_EMERG to 7 LOG_DEBUG).
///
/// An implementation never throws and leaves errno alone. It writes one record per call, on one
/// line whatever the text holds, so that a name with a newline cannot forge a record: control
/// characters are escaped, and a very long text is cut and ends in a mark. A record that cannot be
/// written is lost; its writer goes on. Safe for use from several threads.
extern "C" void maillog(int priority, const char* format, ...)
    __attribute__((format(printf, 2, 3)));
