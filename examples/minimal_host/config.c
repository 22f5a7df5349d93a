/*
 * The two configuration readers: [sections] with lines "key = value". A file is read anew for each question.
 */
#include "minimal_host.h"

#include <errno.h>
#include <nasctrl/host/config.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/types.h>

static const char *g_root = "";
static char g_file[512]; /* what kvos_cfg_init was given */

void setConfigurationRoot(const char *folder)
{
    g_root = folder;
}

static FILE *openFile(const char *path)
{
    char full[1024];
    snprintf(full, sizeof full, "%s%s", g_root, path);
    return fopen(full, "r");
}

static char *trim(char *text)
{
    text += strspn(text, " \t");
    for (size_t length = strlen(text); length > 0 && strchr(" \t\r\n", text[length - 1]) != NULL; --length) {
        text[length - 1] = '\0';
    }
    return text;
}

/* The value in a line of the section that is open, or null; a section's own line opens or leaves it. */
static char *valueInLine(char *line, const char *section, const char *key, int *inSection)
{
    char *text = trim(line);
    char *equals = strchr(text, '=');
    const size_t length = strlen(section);
    if (text[0] == '[') {
        *inSection = strncmp(text + 1, section, length) == 0 && strcmp(text + 1 + length, "]") == 0;
        return NULL;
    }
    if (!*inSection || text[0] == '#' || equals == NULL) {
        return NULL;
    }
    *equals = '\0';
    return strcmp(trim(text), key) == 0 ? trim(equals + 1) : NULL;
}

static int32_t readValue(FILE *file, const char *section, const char *key, char *buffer, uint32_t size)
{
    char *line = NULL;
    size_t capacity = 0;
    int inSection = 0;
    int32_t result = ENOENT;
    while (result == ENOENT && getline(&line, &capacity, file) >= 0) {
        const char *value = valueInLine(line, section, key, &inSection);
        if (value != NULL && strlen(value) < size) {
            strcpy(buffer, value);
            result = 0;
        } else if (value != NULL) {
            result = ENOSPC;
        }
    }
    free(line);
    return result;
}

int32_t ProtoCfgLoadFile(const char *path)
{
    FILE *file = openFile(path);
    if (file == NULL) {
        return errno;
    }
    fclose(file);
    return 0;
}

int32_t ProtoCfgGetStringValue(const char *file, const char *section, const char *key, char *buffer, uint32_t size)
{
    FILE *opened = openFile(file);
    if (opened == NULL) {
        return errno;
    }
    const int32_t result = readValue(opened, section, key, buffer, size);
    fclose(opened);
    return result;
}

int32_t kvos_cfg_init(const char *path)
{
    snprintf(g_file, sizeof g_file, "%s", path);
    return ProtoCfgLoadFile(path);
}

int32_t kvos_cfg_getItemValue(const char *section, const char *key, char *buffer, uint32_t size)
{
    return ProtoCfgGetStringValue(g_file, section, key, buffer, size);
}
