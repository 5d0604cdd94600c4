# Writes OUTPUT, a C++ source that holds the text of INPUT as one string.
# Called as: cmake -DINPUT=... -DOUTPUT=... -P embed_kernels.cmake
file(READ "${INPUT}" text)
file(
  WRITE "${OUTPUT}"
  "// Made from raw_bayer.cl.\n"
  "#include \"raw_bayer/raw_bayer.h\"\n\n"
  "const std::string& lum::raw::KernelSource() {\n"
  "  static const std::string source = R\"opencl(${text})opencl\";\n"
  "  return source;\n}\n")
