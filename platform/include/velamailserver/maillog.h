#pragma once

/// Writes one record to the mail log, formatted like printf, at a syslog priority without a
/// facility (0 LOG_EMERG to 7 LOG_DEBUG).
///
/// An implementation never throws, never fails and leaves errno alone; it writes exactly one record
/// per call whatever the text holds, so that a name with a newline cannot forge a line. Safe for
/// use from several threads.
extern "C" void maillog(int priority, const char* format, ...)
    __attribute__((format(printf, 2, 3)));
