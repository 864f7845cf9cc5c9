/* SPDX-License-Identifier: LGPL-2.1-or-later */
/*
 * A plug-in of QEMU's user-mode emulator that counts the instructions a program executes and prints their number at its
 * end. Debian ships no header for plug-ins: these are the functions of the interface's first version that it takes.
 */
#include <inttypes.h>
#include <stddef.h>
#include <stdio.h>

typedef uint64_t plugin_id;
struct block;

extern void qemu_plugin_register_vcpu_tb_trans_cb(plugin_id id, void (*translated)(plugin_id id, struct block *block));
extern void qemu_plugin_register_atexit_cb(plugin_id id, void (*ended)(plugin_id id, void *data), void *data);
extern size_t qemu_plugin_tb_n_insns(const struct block *block);
extern void qemu_plugin_register_vcpu_tb_exec_inline(struct block *block, int operation, void *number,
                                                     uint64_t operand);

enum { ADD_TO_64_BITS };

int qemu_plugin_install(plugin_id id, const void *info, int argc, char **argv);
int qemu_plugin_version = 1;

static uint64_t executed;

static void on_translated(plugin_id id, struct block *block)
{
    (void)id;
    qemu_plugin_register_vcpu_tb_exec_inline(block, ADD_TO_64_BITS, &executed, qemu_plugin_tb_n_insns(block));
}

static void on_end(plugin_id id, void *data)
{
    (void)id;
    (void)data;
    fprintf(stderr, "executed %" PRIu64 "\n", executed);
}

int qemu_plugin_install(plugin_id id, const void *info, int argc, char **argv)
{
    (void)info;
    (void)argc;
    (void)argv;
    qemu_plugin_register_vcpu_tb_trans_cb(id, on_translated);
    qemu_plugin_register_atexit_cb(id, on_end, NULL);
    return 0;
}
