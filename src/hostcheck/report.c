#include "report.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

bool OpenReport(Report *report, const char *directory)
{
    snprintf(report->path, sizeof(report->path), "%s/report", directory);
    if (mkfifo(report->path, 0600) != 0) {
        return false;
    }
    /* Also for writing: the end of a writer is no end of the file. */
    report->input = open(report->path, O_RDWR | O_NONBLOCK | O_CLOEXEC);
    return report->input >= 0;
}

static bool BeginsWith(const char *line, const char *begin)
{
    return strncmp(line, begin, strlen(begin)) == 0;
}

static void Count(Report *report, const char *line)
{
    const bool isBroken = BeginsWith(line, "not ok ");
    if (!isBroken && !BeginsWith(line, "ok ")) {
        return;
    }
    ++report->results;
    if (isBroken && strstr(line, "# TODO") != NULL) {
        ++report->shouldBroken;
    } else if (isBroken) {
        ++report->broken;
    } else if (strstr(line, "# SKIP") != NULL) {
        ++report->skipped;
    }
}

static void Take(Report *report, const char *line)
{
    report->isBegun = true;
    Count(report, line);
    report->isEnded |= strcmp(line, "# hostcheck: checks ended") == 0;
    report->keepsConfiguration |= strcmp(line, "# hostcheck: configuration is kept") == 0;
    report->hasMessage |= strstr(line, " - call.message") != NULL;
    report->hasRecovery |= strstr(line, " - call.recover-late") != NULL;
    puts(line);
    fflush(stdout);
}

void RelayLines(Report *report, int milliseconds)
{
    struct pollfd watched = {report->input, POLLIN, 0};
    while (poll(&watched, 1, milliseconds) > 0) {
        char letter = '\0';
        while (read(report->input, &letter, 1) == 1) {
            if (letter == '\n' || report->length == kResultSize - 1) {
                report->line[report->length] = '\0';
                report->length = 0;
                Take(report, report->line);
            } else {
                report->line[report->length++] = letter;
            }
        }
        milliseconds = 0;
    }
}

void AddResult(Report *report, PromiseId promise, const Check *check)
{
    if (IsPromiseSelected(promise, report->only)) {
        char text[kResultSize];
        FormatResult(text, report->results + 1, promise, check);
        Count(report, text);
        fputs(text, stdout);
        fflush(stdout);
    }
}

void CloseReport(Report *report)
{
    const int kept = report->results - report->broken - report->shouldBroken - report->skipped;
    printf("1..%d\n", report->results);
    printf("# %d kept, %d broken, %d that should be kept are not, %d not judged\n", kept, report->broken,
           report->shouldBroken, report->skipped);
    fflush(stdout);
    close(report->input);
    unlink(report->path);
}
