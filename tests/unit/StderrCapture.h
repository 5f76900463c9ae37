// Standard error redirected to a temporary file, for tests of what a program part prints there.
#pragma once

#include <unistd.h>

#include <cstdio>
#include <string>

namespace solicd::test {

// Standard error goes to a file while it lives; text() is what was written.
class StderrCapture {
public:
    StderrCapture() : m_file(std::tmpfile()), m_saved(dup(STDERR_FILENO)) {
        std::fflush(stderr);
        dup2(fileno(m_file), STDERR_FILENO);
    }
    ~StderrCapture() {
        restore();
        std::fclose(m_file);
    }
    StderrCapture(const StderrCapture&) = delete;
    StderrCapture& operator=(const StderrCapture&) = delete;

    std::string text() {
        restore();
        std::string out;
        std::rewind(m_file);
        char chunk[512];
        size_t n;
        while ((n = std::fread(chunk, 1, sizeof chunk, m_file)) > 0) {
            out.append(chunk, n);
        }
        return out;
    }

private:
    void restore() {
        if (m_saved >= 0) {
            std::fflush(stderr);
            dup2(m_saved, STDERR_FILENO);
            close(m_saved);
            m_saved = -1;
        }
    }

    FILE* m_file;
    int m_saved;
};

}  // namespace solicd::test
