# Homebrew formula for Veerline, built from the release tarball that `make dist` makes. `make dist`
# writes a copy of this file beside the tarball with the tarball's version and checksum filled in;
# that copy is the one to put in a tap.
class Veerline < Formula
  desc "Keeps several accounts of the claude and codex command-line tools apart"
  homepage "https://github.com/veerline/veerline"
  url "https://github.com/veerline/veerline/releases/download/v0.1.0/veerline-0.1.0.tar.gz"
  sha256 "0000000000000000000000000000000000000000000000000000000000000000"
  license "MIT"

  depends_on "cli11" => :build
  depends_on "cmake" => :build
  depends_on "ninja" => :build
  depends_on "nlohmann-json" => :build
  depends_on "pkg-config" => :build
  depends_on "tomlplusplus" => :build
  depends_on "openssl@3"
  depends_on "utf8proc"

  def install
    system "cmake", "-S", ".", "-B", "build", "-G", "Ninja", "-DVEERLINE_TESTS=OFF", *std_cmake_args
    system "cmake", "--build", "build"
    # The man pages and the bash, zsh and fish completions come with it.
    system "cmake", "--install", "build"
  end

  def caveats
    <<~EOS
      To send `claude` and `codex` through Veerline in new terminals, run:
        veerline shell install
    EOS
  end

  test do
    assert_match "veerline #{version} (commit ", shell_output("#{bin}/veerline --version")
    assert_match "veerline-resolve #{version} ", shell_output("#{libexec}/veerline/veerline-resolve --version")
    assert_match "profile", shell_output("#{bin}/veerline __complete -- pro")
    assert_predicate man1/"veerline.1.gz", :exist?
  end
end
