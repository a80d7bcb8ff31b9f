// vrixdb: the command-line program of the recording database.  It uses the
// library the way the recorder application does, through its public header.
#include "cli.h"

#include <cstdio>
#include <exception>

int main(int argc, char **argv) {
    using namespace vrixtool;
    CLI::App app{"vrixdb - record, play back and inspect a recorder's store\n"
                 "Times are local (the zone of TZ): YYYY-MM-DDTHH:MM:SS or seconds since 1970."};
    app.require_subcommand(1);
    app.footer("Exit status: 0 done; 1 failed; 2 a database of the store could not be read, so "
               "the output is\nincomplete (try vrixdb repair); 100 and above: wrong arguments.");
    Status status = 0;
    add_demo(app, status);
    add_record_h264(app, status);
    add_export_h264(app, status);
#if VRIX_HAVE_MP4
    add_export_mp4(app, status);
#endif
#if VRIX_HAVE_SERVE
    add_serve(app, status);
#endif
    add_ls(app, status);
    add_play(app, status);
    add_events(app, status);
    add_timeline(app, status);
    add_size(app, status);
    add_range(app, status);
    add_reduce(app, status);
    add_backup(app, status);
    add_repair(app, status);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &e) {
        return app.exit(e);
    } catch (const std::exception &e) {
        std::fflush(stdout);
        std::fprintf(stderr, "vrixdb: %s\n", e.what());
        return 1;
    }
    return status;
}
