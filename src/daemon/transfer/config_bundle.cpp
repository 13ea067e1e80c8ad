#include "transfer/config_bundle.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <syslog.h>
#include <unistd.h>

#include "core/client_log.h"
#include "core/files.h"
#include "core/process_exit.h"
#include "core/replies.h"
#include "core/shell.h"
#include "core/state.h"
#include "md5.h"
#include "protocol.h"
#include "rc4.h"
#include "transfer/frames.h"

static const char plain_path[] = "/tmp/saved-configs";
static const char bundle_path[] = "/tmp/saved-configs.dat";
static const size_t chunk_size = 1024;

static size_t next_chunk(uint32_t remaining) { return remaining >= chunk_size + 1 ? chunk_size : remaining; }

static void prepare_header(uint8_t header[bundle_header_len], uint32_t plain_size) {
    memset(header, 0, bundle_header_len);
    memcpy(header + bundle_title_offset, bundle_title, sizeof bundle_title - 1);
    memcpy(header + bundle_format_offset, bundle_format, sizeof bundle_format);
    put_le32(header + bundle_size_offset, (uint32_t)bundle_header_len + plain_size);
}

// Enciphers the plain file into the bundle body; false on a failed write or
// when the file ends early (it changed under us).
static bool write_body(FILE* plain, FILE* bundle, uint32_t remaining, rc4_key* key, md5_state* md5) {
    uint8_t buffer[chunk_size];
    do {
        size_t n = next_chunk(remaining);
        size_t got = fread(buffer, 1, n, plain);
        if (got == 0 && n != 0) return false;
        md5_add(md5, buffer, got);
        remaining -= (uint32_t)got;
        rc4(buffer, (int)got, key);
        if (got < n) memset(buffer + got, 0, n - got);
        if (n != 0 && fwrite(buffer, n, 1, bundle) != 1) return false;
    } while (remaining != 0);
    return true;
}

bool build_config_bundle() {
    uint8_t header[bundle_header_len];
    rc4_key key;
    md5_state md5;
    uint32_t plain_size = file_size(plain_path);
    if (plain_size == 0) return false;
    prepare_header(header, plain_size);

    FILE* plain = fopen(plain_path, "r");
    if (!plain) return false;
    FILE* bundle = fopen(bundle_path, "w");
    if (!bundle) {
        fclose(plain);
        return false;
    }
    prepare_key(bundle_key, (int)sizeof bundle_key, &key);
    md5_init(&md5);
    fwrite(header, bundle_header_len, 1, bundle);  // placeholder until the digest is known
    bool ok = write_body(plain, bundle, plain_size, &key, &md5);
    uint8_t digest[bundle_digest_len];
    md5_finish(&md5, digest);
    fclose(plain);
    if (!ok) {
        fclose(bundle);
        return false;
    }
    memcpy(header + bundle_digest_offset, digest, sizeof digest);
    fseek(bundle, 0, SEEK_SET);
    fwrite(header, bundle_header_len, 1, bundle);
    fclose(bundle);
    return true;
}

// Deciphers the body, adding it to the digest and, when out is given,
// writing it there. Returns 0 on success, 1 on a short bundle, 2 on a failed
// write.
static int decipher_body(FILE* bundle, uint32_t remaining, FILE* out, uint8_t digest[bundle_digest_len]) {
    rc4_key key;
    md5_state md5;
    prepare_key(bundle_key, (int)sizeof bundle_key, &key);
    md5_init(&md5);
    uint8_t buffer[chunk_size];
    int status = 0;
    while (remaining != 0) {
        size_t n = next_chunk(remaining);
        size_t got = fread(buffer, 1, n, bundle);
        if (got == 0) {
            status = 1;
            break;
        }
        rc4(buffer, (int)got, &key);
        remaining -= (uint32_t)got;
        md5_add(&md5, buffer, got);
        if (out && fwrite(buffer, got, 1, out) != 1) {
            status = 2;
            break;
        }
    }
    md5_finish(&md5, digest);
    return status;
}

static bool fail(FILE* bundle, const char* tag) {
    if (bundle) fclose(bundle);
    puts(tag);
    return false;
}

bool verify_config_bundle() {
    uint32_t size = file_size(bundle_path);
    FILE* bundle = fopen(bundle_path, "r");
    if (!bundle) return false;
    uint8_t header[bundle_header_len];
    if (fread(header, bundle_header_len, 1, bundle) != 1) memset(header, 0, sizeof header);
    if (memcmp(header + bundle_format_offset, bundle_format, sizeof bundle_format) != 0) return fail(bundle, "!ver");
    uint32_t total = get_le32(header + bundle_size_offset);
    // A total below the header's own size cannot describe a body.
    if (total != size || total < bundle_header_len) return fail(bundle, "!size");

    uint8_t digest[bundle_digest_len];
    if (decipher_body(bundle, total - (uint32_t)bundle_header_len, nullptr, digest) != 0 ||
        memcmp(digest, header + bundle_digest_offset, sizeof digest) != 0)
        return fail(bundle, "!md5(1)");

    FILE* plain = fopen(plain_path, "w");
    if (!plain) return fail(bundle, "!open(w)");
    fseek(bundle, 0, SEEK_SET);
    if (fread(header, bundle_header_len, 1, bundle) != 1) memset(header, 0, sizeof header);
    int status = decipher_body(bundle, total - (uint32_t)bundle_header_len, plain, digest);
    fclose(plain);
    if (status == 2) return fail(bundle, "!write(1)");
    fclose(bundle);
    if (status != 0 || memcmp(digest, header + bundle_digest_offset, sizeof digest) != 0) {
        puts("!md5(2)");
        return false;
    }
    return true;
}

static void remove_temporaries() {
    unlink(plain_path);
    unlink(bundle_path);
}

int send_configuration(int fd) {
    puts("Sending client the configuration");
    log_client(LOG_INFO, "configuration being sent to client");
    run_helper("do-prepconfigs");
    if (!build_config_bundle()) {
        remove_temporaries();
        return code_failed;
    }
    if (!send_ready(fd, bundle_path)) {
        remove_temporaries();
        end_process(1);
    }
    if (!send_file(fd, bundle_path)) {
        remove_temporaries();
        puts("failed..");
        end_process(1);
    }
    puts("done..");
    remove_temporaries();
    return code_ok;
}

int receive_configuration(int fd) {
    log_client(LOG_INFO, "client uploading new configuration");
    if (act_pkt.size > upload_max) refuse_action(fd, code_too_large);
    if (act_pkt.size < bundle_min_upload) refuse_action(fd, code_too_small);
    send_ready_or_exit(fd);
    if (!receive_file(fd, bundle_path, act_pkt.size)) end_process(1);
    puts("verifying file..");
    if (!verify_config_bundle()) {
        puts("failed..");
        return code_failed;
    }
    puts("ok..");
    run_helper("do-saveconfigs");
    return code_ok;
}
