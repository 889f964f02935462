// Writes one small trace with the file reporter: what the agent produces for
// a request that makes one outgoing call. tests/wire/demo_trace_check.py decodes it.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "corvidine/event.h"
#include "corvidine/metadata.h"
#include "corvidine/startup.h"

static int send_event(vesk_metadata_t *md, const char *label, const char *layer) {
    vesk_event_t evt;
    if (vesk_metadata_create_event(md, &evt) != 0) return -1;
    vesk_event_add_info(&evt, "Label", label);
    vesk_event_add_info(&evt, "Layer", layer);
    if (strcmp(label, "entry") == 0 && strcmp(layer, "PHP") == 0) {
        vesk_event_add_info(&evt, "URL", "/demo/index.php");
        vesk_event_add_info(&evt, "Method", "GET");
    }
    int rc = vesk_event_send(VESK_SEND_EVENT, &evt, md);
    vesk_event_destroy(&evt);
    return rc;
}

int main(int argc, char **argv) {
    if (argc < 2) {
        fprintf(stderr, "usage: %s OUTPUT_FILE.bson\n", argv[0]);
        return 2;
    }
    vesk_init_options_t options;
    options.version = VESK_INIT_OPTIONS_VERSION;
    vesk_init_options_set_defaults(&options);
    options.reporter = "file";
    options.host = argv[1];
    int rc = vesk_init(&options);
    if (rc != 0) {
        fprintf(stderr, "file reporter failed to start (%d)\n", rc);
        return 1;
    }
    vesk_metadata_t md;
    vesk_metadata_init(&md);
    vesk_metadata_random(&md);
    md.flags = 1;
    // The entry event has no predecessor: start from a record whose op id no
    // event carries, then chain every event on the previous one.
    const char *steps[][2] = {{"entry", "PHP"}, {"entry", "curl"}, {"exit", "curl"}, {"exit", "PHP"}};
    for (auto &step : steps) {
        if (send_event(&md, step[0], step[1]) <= 0) return 1;
    }
    return 0;
}
