#include "module.h"

#include <dlfcn.h>
#include <elf.h>
#include <errno.h>
#include <fcntl.h>
#include <link.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "vqPlatform.h"

enum { kNoteType = 1, kNoteAlignment = 4 };

static const char kNoteOwner[] = "Kavel";

typedef ElfW(Ehdr) Header;
typedef ElfW(Shdr) Section;
typedef ElfW(Sym) Symbol;
typedef ElfW(Nhdr) Note;

/* The file in memory, and its section of dynamic symbols. */
typedef struct {
    const char *bytes;
    size_t size;
    const Section *symbols; /* null: it has none */
} ModuleFile;

/* A part of the file; null if it is not within the file. */
static const void *PartOf(const ModuleFile *file, uint64_t offset, uint64_t size)
{
    return offset <= file->size && size <= file->size - offset ? file->bytes + offset : NULL;
}

/* The section with this index; null if there is none. */
static const Section *SectionOf(const ModuleFile *file, size_t index)
{
    const Header *header = PartOf(file, 0, sizeof(*header));
    return index < header->e_shnum ? PartOf(file, header->e_shoff + index * sizeof(Section), sizeof(Section)) : NULL;
}

/* Maps the file. False, with the reason recorded, if it cannot be read or is no library for this processor. */
static bool OpenModule(Check *check, const char *path, ModuleFile *file)
{
    struct stat info;
    const Header own = {.e_ident = {ELFMAG0, ELFMAG1, ELFMAG2, ELFMAG3, sizeof(void *) == 8 ? ELFCLASS64 : ELFCLASS32}};
    const int descriptor = open(path, O_RDONLY | O_CLOEXEC);
    if (descriptor < 0 || fstat(descriptor, &info) != 0) {
        Skipped(check, "%s: %s", path, strerror(errno));
        return false;
    }
    *file = (ModuleFile){.size = (size_t)info.st_size};
    file->bytes = mmap(NULL, file->size, PROT_READ, MAP_PRIVATE, descriptor, 0);
    close(descriptor);
    const Header *header = file->bytes != MAP_FAILED ? PartOf(file, 0, sizeof(*header)) : NULL;
    if (header == NULL || memcmp(header->e_ident, own.e_ident, EI_CLASS + 1) != 0) {
        Broken(check, "%s is no library for this processor", path);
        return false;
    }
    const Section *section;
    for (size_t index = 0; (section = SectionOf(file, index)) != NULL; ++index) {
        file->symbols = section->sh_type == SHT_DYNSYM ? section : file->symbols;
    }
    return true;
}

/* The dynamic symbol with this index, and its name; null after the last one. */
static const Symbol *SymbolOf(const ModuleFile *file, size_t index, const char **name)
{
    const Section *texts = file->symbols != NULL ? SectionOf(file, file->symbols->sh_link) : NULL;
    if (texts == NULL || index >= file->symbols->sh_size / sizeof(Symbol)) {
        return NULL;
    }
    const Symbol *symbol = PartOf(file, file->symbols->sh_offset + index * sizeof(*symbol), sizeof(*symbol));
    const char *text = PartOf(file, texts->sh_offset, texts->sh_size);
    const bool hasName = symbol != NULL && text != NULL && symbol->st_name < texts->sh_size &&
                         memchr(text + symbol->st_name, '\0', texts->sh_size - symbol->st_name) != NULL;
    *name = hasName ? text + symbol->st_name : "";
    return symbol;
}

static bool IsIn(const char *const *names, const char *name)
{
    while (*names != NULL && strcmp(*names, name) != 0) {
        ++names;
    }
    return *names != NULL;
}

static bool Exports(const ModuleFile *file, const char *wanted)
{
    const Symbol *symbol;
    const char *name = "";
    for (size_t index = 1; (symbol = SymbolOf(file, index, &name)) != NULL; ++index) {
        if (symbol->st_shndx != SHN_UNDEF && strcmp(name, wanted) == 0) {
            return true;
        }
    }
    return false;
}

static void Append(char *names, size_t size, const char *name)
{
    const size_t length = strlen(names);
    snprintf(names + length, size - length, " %s", name);
}

static void JudgeExports(Check *check, const ModuleFile *file)
{
    char missing[kSeenSize / 3] = "";
    char others[kSeenSize / 3] = "";
    const Symbol *symbol;
    const char *name = "";
    for (size_t i = 0; kExportedNames[i] != NULL; ++i) {
        if (!Exports(file, kExportedNames[i])) {
            Append(missing, sizeof(missing), kExportedNames[i]);
        }
    }
    for (size_t index = 1; (symbol = SymbolOf(file, index, &name)) != NULL; ++index) {
        if (symbol->st_shndx != SHN_UNDEF && !IsIn(kExportedNames, name)) {
            Append(others, sizeof(others), name);
        }
    }
    if (*missing != '\0' || *others != '\0') {
        Broken(check, "missing:%s; not in exports.list:%s", *missing != '\0' ? missing : " none",
               *others != '\0' ? others : " none");
    }
}

/* This program is linked to libc alone: what it finds is of libc. Weak references may stay unresolved. What a sanitizer
 * adds to a module cannot be told from a wrong name. */
static void JudgeImports(Check *check, const ModuleFile *file)
{
    char others[kSeenSize / 2] = "";
    const Symbol *symbol;
    const char *name = "";
    for (size_t index = 1; (symbol = SymbolOf(file, index, &name)) != NULL; ++index) {
        if (strncmp(name, "__asan_", strlen("__asan_")) == 0) {
            Skipped(check, "the module is built with a sanitizer");
            return;
        }
        const bool isNeeded = symbol->st_shndx == SHN_UNDEF && ELF32_ST_BIND(symbol->st_info) == STB_GLOBAL;
        if (isNeeded && !IsIn(kImportedNames, name) && dlsym(RTLD_DEFAULT, name) == NULL) {
            Append(others, sizeof(others), name);
        }
    }
    if (*others != '\0') {
        Broken(check, "neither in imports.list nor of libc:%s", others);
    }
}

static size_t Aligned(size_t size)
{
    return (size + kNoteAlignment - 1) / kNoteAlignment * kNoteAlignment;
}

/* Looks for the note in a section of notes. */
static bool FindVersion(const char *notes, size_t size, uint32_t *version)
{
    Note note;
    for (size_t at = 0; at + sizeof(note) <= size;) {
        memcpy(&note, notes + at, sizeof(note));
        const size_t content = at + sizeof(note) + Aligned(note.n_namesz);
        const bool isOurs = note.n_type == kNoteType && note.n_namesz == sizeof(kNoteOwner) &&
                            note.n_descsz == sizeof(*version) && content + sizeof(*version) <= size &&
                            memcmp(notes + at + sizeof(note), kNoteOwner, sizeof(kNoteOwner)) == 0;
        if (isOurs) {
            memcpy(version, notes + content, sizeof(*version));
            return true;
        }
        at = content + Aligned(note.n_descsz);
    }
    return false;
}

static void JudgeVersion(Check *check, const ModuleFile *file)
{
    uint32_t version = 0;
    const Section *section;
    for (size_t index = 0; (section = SectionOf(file, index)) != NULL; ++index) {
        const char *notes = section->sh_type == SHT_NOTE ? PartOf(file, section->sh_offset, section->sh_size) : NULL;
        if (notes != NULL && FindVersion(notes, section->sh_size, &version)) {
            if (version != VQ_HOST_INTERFACE_VERSION) {
                Broken(check, "the module has version %u, the headers have version %d", version,
                       VQ_HOST_INTERFACE_VERSION);
            }
            return;
        }
    }
    Broken(check, "the file has no note with a version; the headers have version %d", VQ_HOST_INTERFACE_VERSION);
}

void JudgeModule(Report *report, const char *path)
{
    static const struct {
        PromiseId promise;
        void (*judge)(Check *check, const ModuleFile *file);
    } kJudges[] = {{kModuleVersion, JudgeVersion}, {kModuleExports, JudgeExports}, {kModuleImports, JudgeImports}};
    for (size_t i = 0; i < sizeof(kJudges) / sizeof(kJudges[0]); ++i) {
        ModuleFile file;
        Check check;
        memset(&check, 0, sizeof(check));
        if (OpenModule(&check, path, &file)) {
            kJudges[i].judge(&check, &file);
            munmap((void *)(uintptr_t)file.bytes, file.size);
        }
        AddResult(report, kJudges[i].promise, &check);
    }
}
