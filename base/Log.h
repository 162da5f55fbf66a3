// Logging of warnings and errors that the libraries note and pass on or
// tolerate. Lines go to a sink that the host program may replace; the
// default sink writes them to standard error.
#pragma once

#include "base/String.h"

#include <exception>
#include <functional>

namespace zu {

enum class LogLevel { warning = 1, error = 2 };

// Receives the level and the complete line (without a line end).
using LogSink = std::function<void(LogLevel, const String&)>;

// Replaces the sink and returns the previous one. An empty sink restores
// the default. Thread-safe.
LogSink setLogSink(LogSink sink);

void logWarning(const String& message);
// The exception's text (a CError with its properties and causes) follows
// the message; context, when not empty, names where it happened.
void logWarning(const std::exception& error, const String& message, const String& context = String());
void logError(const String& message);
void logError(const std::exception& error, const String& message, const String& context = String());

// Reports an exception that a destructor caught and cannot pass on.
// `where` names the class; with `logAsError` it is logged as an error,
// otherwise as a warning.
void onExceptionInDestructorIgnored(const String& where, const std::exception& error, bool logAsError = true);
// How many errors destructors have reported so far (those logged as errors):
// failures that nobody could be told of by an exception, for a program that
// must not end as if all went well.
long long getIgnoredDestructorErrorCount();

} // namespace zu
