// check_blueprint ANDROID_BP: the device's build system, as the distribution packages
// it, takes the modules: known types and properties, sources that are there, and
// libraries that depend on each other in a way it can build. Faults go to standard
// error and make the exit status 1.
package main

import (
	"fmt"
	"os"
	"regexp"

	"android/soong/android"
	"android/soong/cc"
)

// Libraries of the platform that the build system's own test platform lacks.
const platform = `
cc_library_shared { name: "libbinder" }
cc_library_shared { name: "libcutils" }
cc_library_shared { name: "liblog" }
cc_library_shared { name: "libutils" }
`

// The packaged release is older than the license modules, which name no sources.
var licenseModules = regexp.MustCompile(`(?ms)^(package|license) \{.*?^\}\n`)

var sources = regexp.MustCompile(`"([^"]+\.(?:cc|proto))"`)

func check(path string) []error {
	text, err := os.ReadFile(path)
	if err != nil {
		return []error{err}
	}
	files := map[string][]byte{}
	for _, match := range sources.FindAllSubmatch(text, -1) {
		if _, err := os.Stat(string(match[1])); err != nil {
			return []error{err}
		}
		files[string(match[1])] = nil
	}
	out, err := os.MkdirTemp("", "blueprint")
	if err != nil {
		return []error{err}
	}
	defer os.RemoveAll(out)
	modules := string(licenseModules.ReplaceAll(text, nil))
	config := cc.TestConfig(out, android.Android, nil, modules+platform, files)
	context := cc.CreateTestContext()
	context.Register(config)
	if _, errs := context.ParseFileList(".", []string{"Android.bp"}); len(errs) > 0 {
		return errs
	}
	_, errs := context.PrepareBuildActions(config)
	return errs
}

func main() {
	errs := check(os.Args[1])
	for _, err := range errs {
		fmt.Fprintln(os.Stderr, err)
	}
	if len(errs) > 0 {
		os.Exit(1)
	}
}
