#include "base/Log.h"

#include "base/CError.h"

#include <atomic>
#include <cstdio>
#include <mutex>
#include <string>

namespace zu {

namespace {

// Both built on first use and guarded together: a line is handed to the
// sink while the lock is held, so lines from several threads never mix.
// The mutex is recursive so that a sink may itself log.
std::recursive_mutex& logMutex()
{
    static std::recursive_mutex mutex;
    return mutex;
}

LogSink& currentSink()
{
    static LogSink sink;
    return sink;
}

void writeToStandardError(LogLevel level, const String& line)
{
    std::string text = (level == LogLevel::error ? "kord error: " : "kord warning: ") + line.toUTF8() + "\n";
    std::fwrite(text.data(), 1, text.size(), stderr);
    std::fflush(stderr);
}

// Logging never fails its caller: it runs in error paths and destructors,
// where a second exception would replace the first or terminate.
void emit(LogLevel level, const String& line) noexcept
{
    try {
        std::lock_guard<std::recursive_mutex> lock(logMutex());
        if (currentSink())
            currentSink()(level, line);
        else
            writeToStandardError(level, line);
    } catch (...) {
    }
}

String describe(const std::exception& error)
{
    if (const auto* zuError = dynamic_cast<const CError*>(&error)) return zuError->toString();
    return String(error.what());
}

String withError(const std::exception& error, const String& message, const String& context)
{
    String line = message;
    if (!context.empty()) line += " (in " + context + ")";
    if (!line.empty()) line += " Error: ";
    return line + describe(error);
}

void logWithError(LogLevel level, const std::exception& error, const String& message, const String& context) noexcept
{
    try {
        emit(level, withError(error, message, context));
    } catch (...) {
    }
}

std::atomic<long long> ignoredDestructorErrors{0};

} // namespace

LogSink setLogSink(LogSink sink)
{
    std::lock_guard<std::recursive_mutex> lock(logMutex());
    LogSink previous = std::move(currentSink());
    currentSink() = std::move(sink);
    return previous;
}

void logWarning(const String& message) { emit(LogLevel::warning, message); }

void logWarning(const std::exception& error, const String& message, const String& context)
{
    logWithError(LogLevel::warning, error, message, context);
}

void logError(const String& message) { emit(LogLevel::error, message); }

void logError(const std::exception& error, const String& message, const String& context)
{
    logWithError(LogLevel::error, error, message, context);
}

void onExceptionInDestructorIgnored(const String& where, const std::exception& error, bool logAsError)
{
    if (logAsError) ++ignoredDestructorErrors;
    try {
        emit(logAsError ? LogLevel::error : LogLevel::warning,
             "Exception ignored in destructor of " + where + ": " + describe(error));
    } catch (...) {
    }
}

long long getIgnoredDestructorErrorCount() { return ignoredDestructorErrors; }

} // namespace zu
