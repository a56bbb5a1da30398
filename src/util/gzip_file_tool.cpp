// The gzip command. Messages keep the texts scripts and hosts already match on ("gzip: ..." and
// perror-style "<name>: <reason>"), and every failure is returned, never turned into an exit.
#include "webdavconnect/gzip_file_tool.h"

#include <zlib.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "util/gzip_file_tool_internal.h"

namespace wdc {
namespace {

constexpr size_t kBufferLength = 16384;
constexpr size_t kMaxNameLength = 1024;
constexpr char kSuffix[] = ".gz";
constexpr size_t kSuffixLength = sizeof(kSuffix) - 1;

// Name buffer for a derived file name. Overflowing it is a programming-level failure, handled
// the way a checked string copy handles it.
struct NameBuffer {
  char text[kMaxNameLength];

  void assign(const char* first, size_t firstLength, const char* second = "") {
    const size_t secondLength = std::strlen(second);
    if (firstLength + secondLength + 1 > kMaxNameLength) std::abort();
    std::memcpy(text, first, firstLength);
    std::memcpy(text + firstLength, second, secondLength + 1);
  }
};

void printSystemError(const char* what) {
  const int saved = errno;
  std::fprintf(stderr, "%s: %s\n", what, std::strerror(saved));
}

}  // namespace

void showerror(const char* message) { std::fprintf(stderr, "gzip: %s\n", message); }

int gz_compress(std::FILE* in, gzFile out) {
  char buffer[kBufferLength];
  for (;;) {
    const size_t length = std::fread(buffer, 1, sizeof(buffer), in);
    if (std::ferror(in)) {
      printSystemError("fread");
      return -1;
    }
    if (length == 0) break;
    if (gzwrite(out, buffer, static_cast<unsigned>(length)) != static_cast<int>(length)) {
      int errnum = 0;
      showerror(gzerror(out, &errnum));
      return -1;
    }
  }
  std::fclose(in);
  if (gzclose(out) != Z_OK) {
    showerror("failed gzclose");
    return -1;
  }
  return 0;
}

int gz_uncompress(gzFile in, std::FILE* out) {
  char buffer[kBufferLength];
  for (;;) {
    const int length = gzread(in, buffer, sizeof(buffer));
    if (length < 0) {
      int errnum = 0;
      showerror(gzerror(in, &errnum));
      // A damaged stream is an everyday input (a bad download): leaking both descriptors on
      // each one would wear a long-running host down.
      std::fclose(out);
      gzclose(in);
      return -1;
    }
    if (length == 0) break;
    if (std::fwrite(buffer, 1, static_cast<size_t>(length), out) !=
        static_cast<size_t>(length)) {
      showerror("failed fwrite");
      std::fclose(out);
      gzclose(in);
      return -1;
    }
  }
  if (std::fclose(out) != 0) {
    showerror("failed fclose");
    return -1;
  }
  if (gzclose(in) != Z_OK) {
    showerror("failed gzclose");
    return -1;
  }
  return 0;
}

int file_compress(const char* file, const char* mode) {
  NameBuffer outfile;
  outfile.assign(file, std::strlen(file), kSuffix);

  std::FILE* in = std::fopen(file, "rb");
  if (in == nullptr) {
    printSystemError(file);
    return 0;
  }
  gzFile out = gzopen(outfile.text, mode);
  if (out == nullptr) {
    // The input is left open here, as this command always has.
    std::fprintf(stderr, "gzip: can't gzopen %s\n", outfile.text);
    return 0;
  }
  if (gz_compress(in, out) != 0) return 0;
  std::remove(file);
  return 1;
}

int file_uncompress(const char* file) {
  const size_t length = std::strlen(file);
  NameBuffer buffer;
  const char* infile;
  const char* outfile;
  if (length > kSuffixLength && std::strcmp(file + length - kSuffixLength, kSuffix) == 0) {
    buffer.assign(file, length - kSuffixLength);
    infile = file;
    outfile = buffer.text;
  } else {
    buffer.assign(file, length, kSuffix);
    infile = buffer.text;
    outfile = file;
  }

  gzFile in = gzopen(infile, "rb");
  if (in == nullptr) {
    std::fprintf(stderr, "gzip: can't gzopen %s\n", infile);
    return 0;
  }
  std::FILE* out = std::fopen(outfile, "wb");
  if (out == nullptr) {
    // Named by the argument as given, not by the derived output name.
    printSystemError(file);
    gzclose(in);
    return 0;
  }
  if (gz_uncompress(in, out) != 0) return 0;
  std::remove(infile);
  return 1;
}

int minigzipWithStreams(int argc, const char* const argv[], std::FILE* in, std::FILE* out) {
  char outmode[] = "wb6 ";
  bool uncompress = false;

  // Compress filter: the default without arguments and after options with no file names.
  auto compressFilter = [&]() {
    gzFile gzOut = gzdopen(fileno(out), outmode);
    if (gzOut == nullptr) {
      showerror("can't gzdopen stdout");
      return -1;
    }
    (void)gz_compress(in, gzOut);
    return 0;
  };

  int index = 1;
  if (argc <= 1) return compressFilter();
  while (index < argc && argv[index][0] == '-') {
    const char* option = argv[index];
    if (std::strlen(option) != 2) break;
    if (option[1] == 'd') {
      uncompress = true;
    } else if (option[1] == 'f') {
      outmode[3] = 'f';
    } else if (option[1] == 'h') {
      outmode[3] = 'h';
    } else if (option[1] >= '1' && option[1] <= '9') {
      outmode[2] = option[1];
    } else {
      break;
    }
    ++index;
    if (index == argc) {
      if (!uncompress) return compressFilter();
      gzFile gzIn = gzdopen(fileno(in), "rb");
      if (gzIn == nullptr) {
        showerror("can't gzdopen stdin");
        return -1;
      }
      (void)gz_uncompress(gzIn, out);
      return 0;
    }
  }
  for (; index < argc; ++index) {
    if (uncompress) {
      (void)file_uncompress(argv[index]);
    } else {
      (void)file_compress(argv[index], outmode);
    }
  }
  return 0;
}

int minigzip(int argc, const char* const argv[]) {
  return minigzipWithStreams(argc, argv, stdin, stdout);
}

}  // namespace wdc
