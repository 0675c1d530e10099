// bpcheck: what Soong would refuse in Android.bp, found without a platform tree, and the
// device compile of every file a device module of it builds.
//
//	bpcheck check Android.bp
//	bpcheck compile Android.bp COMPILER [FLAG...]
//
// check fails when a module that builds for the host (or the device) depends on a module of
// this file that does not, when a default, a listed source, include folder, data file or
// init_rc file is missing, or when two modules share a name.
//
// compile runs COMPILER -fsyntax-only on every C++ file of every module that builds for the
// device, with FLAG... (the platform's device defaults) first, then the module's own flags
// and include folders, taken from the file itself so that the list cannot drift.
//
// Built with Debian's Blueprint parser (golang-github-google-blueprint-dev):
// GOPATH=/usr/share/gocode GO111MODULE=off go build.
package main

import (
	"fmt"
	"os"
	"os/exec"
	"path/filepath"
	"runtime"
	"sort"
	"strings"
	"sync"

	"github.com/google/blueprint/parser"
)

type module struct {
	typ   string
	name  string
	props map[string]parser.Expression
}

type blueprint struct {
	dir     string
	modules map[string]*module
	order   []string
	errors  []string
}

func (bp *blueprint) errorf(format string, args ...interface{}) {
	bp.errors = append(bp.errors, fmt.Sprintf(format, args...))
}

func load(path string) (*blueprint, error) {
	f, err := os.Open(path)
	if err != nil {
		return nil, err
	}
	defer f.Close()
	file, errs := parser.ParseAndEval(path, f, parser.NewScope(nil))
	if len(errs) > 0 {
		msgs := make([]string, len(errs))
		for i, e := range errs {
			msgs[i] = e.Error()
		}
		return nil, fmt.Errorf("%s", strings.Join(msgs, "\n"))
	}
	bp := &blueprint{dir: filepath.Dir(path), modules: map[string]*module{}}
	for _, def := range file.Defs {
		m, ok := def.(*parser.Module)
		if !ok {
			continue
		}
		mod := &module{typ: m.Type, props: map[string]parser.Expression{}}
		for _, p := range m.Properties {
			mod.props[p.Name] = p.Value.Eval()
		}
		mod.name = str(mod.props["name"])
		if mod.name == "" {
			bp.errorf("%s: a %s without a name", m.TypePos, m.Type)
			continue
		}
		if _, dup := bp.modules[mod.name]; dup {
			bp.errorf("module %q is defined twice", mod.name)
			continue
		}
		bp.modules[mod.name] = mod
		bp.order = append(bp.order, mod.name)
	}
	return bp, nil
}

func str(e parser.Expression) string {
	if s, ok := e.(*parser.String); ok {
		return s.Value
	}
	return ""
}

func strs(e parser.Expression) []string {
	l, ok := e.(*parser.List)
	if !ok {
		return nil
	}
	var out []string
	for _, v := range l.Values {
		out = append(out, str(v.Eval()))
	}
	return out
}

// defaultsChain is the module's defaults, depth first, then the module: the order in which
// Soong appends list properties.
func (bp *blueprint) defaultsChain(m *module, seen map[string]bool) []*module {
	var chain []*module
	for _, d := range strs(m.props["defaults"]) {
		dm, ok := bp.modules[d]
		if !ok || dm.typ != "cc_defaults" {
			bp.errorf("%s: defaults %q is not a cc_defaults of this file", m.name, d)
			continue
		}
		if seen[d] {
			bp.errorf("%s: defaults %q form a cycle", m.name, d)
			continue
		}
		seen[d] = true
		chain = append(chain, bp.defaultsChain(dm, seen)...)
	}
	return append(chain, m)
}

func (bp *blueprint) list(m *module, prop string) []string {
	var out []string
	for _, c := range bp.defaultsChain(m, map[string]bool{}) {
		out = append(out, strs(c.props[prop])...)
	}
	return out
}

// boolean gives the last setting along the defaults chain (the module's own wins).
func (bp *blueprint) boolean(m *module, prop string) (value, set bool) {
	for _, c := range bp.defaultsChain(m, map[string]bool{}) {
		if b, ok := c.props[prop].(*parser.Bool); ok {
			value, set = b.Value, true
		}
	}
	return
}

func (bp *blueprint) targets(m *module) (host, device bool) {
	if strings.HasSuffix(m.typ, "_host") || strings.Contains(m.typ, "_host_") {
		return true, false
	}
	host, _ = bp.boolean(m, "host_supported")
	device, set := bp.boolean(m, "device_supported")
	if !set {
		device = true
	}
	return host, device
}

var depProps = []string{"static_libs", "whole_static_libs", "shared_libs", "header_libs",
	"data_libs", "data_bins"}

// check reports everything Soong would refuse that can be seen without a platform tree.
func (bp *blueprint) check() {
	for _, name := range bp.order {
		m := bp.modules[name]
		bp.defaultsChain(m, map[string]bool{}) // reports missing defaults
		if m.typ == "cc_defaults" {
			bp.checkPaths(m)
			continue
		}
		bp.checkPaths(m)
		host, device := bp.targets(m)
		for _, prop := range depProps {
			for _, dep := range bp.list(m, prop) {
				dm, ok := bp.modules[dep]
				if !ok {
					continue // a platform module
				}
				dh, dd := bp.targets(dm)
				if host && !dh {
					bp.errorf("%s builds for the host but its %s %q is not host_supported",
						name, prop, dep)
				}
				if device && !dd {
					bp.errorf("%s builds for the device but its %s %q does not", name, prop,
						dep)
				}
			}
		}
	}
}

// checkPaths checks one module's own paths (defaults are checked on their own).
func (bp *blueprint) checkPaths(m *module) {
	for _, prop := range []string{"srcs", "data", "corpus", "init_rc"} {
		for _, p := range strs(m.props[prop]) {
			matches, _ := filepath.Glob(filepath.Join(bp.dir, p))
			if len(matches) == 0 {
				bp.errorf("%s: %s %q does not exist", m.name, prop, p)
			}
		}
	}
	for _, prop := range []string{"local_include_dirs", "export_include_dirs"} {
		for _, p := range strs(m.props[prop]) {
			if st, err := os.Stat(filepath.Join(bp.dir, p)); err != nil || !st.IsDir() {
				bp.errorf("%s: %s %q is not a folder", m.name, prop, p)
			}
		}
	}
}

// includes are the module's folder, its own include folders and those its dependencies of
// this file export, as Soong passes them.
func (bp *blueprint) includes(m *module) []string {
	dirs := []string{"."}
	dirs = append(dirs, bp.list(m, "local_include_dirs")...)
	dirs = append(dirs, bp.list(m, "export_include_dirs")...)
	seen := map[string]bool{}
	var visit func(name string)
	visit = func(name string) {
		dm, ok := bp.modules[name]
		if !ok || seen[name] {
			return
		}
		seen[name] = true
		dirs = append(dirs, bp.list(dm, "export_include_dirs")...)
		for _, d := range bp.list(dm, "whole_static_libs") {
			visit(d)
		}
	}
	for _, prop := range []string{"static_libs", "whole_static_libs", "shared_libs", "header_libs"} {
		for _, dep := range bp.list(m, prop) {
			visit(dep)
		}
	}
	return dirs
}

// Folders of the genrules already run, by name.
var generated = map[string]string{}

// generate runs a genrule of this file as Soong would ($(in): its srcs, $(out): its one
// output) into a folder of its own, and gives that folder.
func (bp *blueprint) generate(name string) (string, error) {
	if dir, ok := generated[name]; ok {
		return dir, nil
	}
	m, ok := bp.modules[name]
	if !ok || m.typ != "genrule" {
		return "", fmt.Errorf("not a genrule of this file")
	}
	outs := strs(m.props["out"])
	if len(outs) != 1 {
		return "", fmt.Errorf("wants one output, has %d", len(outs))
	}
	dir, err := os.MkdirTemp("", "bpcheck-gen-")
	if err != nil {
		return "", err
	}
	var ins []string
	for _, src := range strs(m.props["srcs"]) {
		ins = append(ins, filepath.Join(bp.dir, src))
	}
	cmd := strings.ReplaceAll(str(m.props["cmd"]), "$(in)", strings.Join(ins, " "))
	cmd = strings.ReplaceAll(cmd, "$(out)", filepath.Join(dir, outs[0]))
	if out, err := exec.Command("sh", "-c", cmd).CombinedOutput(); err != nil {
		return "", fmt.Errorf("%v: %s", err, out)
	}
	generated[name] = dir
	return dir, nil
}

type compileJob struct {
	module, src string
	args        []string
}

func (bp *blueprint) compile(compiler string, defaults []string) {
	var jobs []compileJob
	for _, name := range bp.order {
		m := bp.modules[name]
		if m.typ == "cc_defaults" {
			continue
		}
		if _, device := bp.targets(m); !device {
			continue
		}
		flags := append([]string{}, defaults...)
		for _, c := range bp.defaultsChain(m, map[string]bool{}) {
			if std := str(c.props["cpp_std"]); std != "" {
				flags = append(flags, "-std="+std)
			}
		}
		flags = append(flags, bp.list(m, "cflags")...)
		flags = append(flags, bp.list(m, "cppflags")...)
		for _, dir := range bp.includes(m) {
			flags = append(flags, "-I"+filepath.Join(bp.dir, dir))
		}
		for _, gen := range bp.list(m, "generated_headers") {
			dir, err := bp.generate(gen)
			if err != nil {
				bp.errorf("%s: generated_headers %q: %v", name, gen, err)
				continue
			}
			flags = append(flags, "-I"+dir)
		}
		srcs := bp.list(m, "srcs")
		sort.Strings(srcs)
		for _, src := range srcs {
			if !strings.HasSuffix(src, ".cpp") && !strings.HasSuffix(src, ".cc") {
				continue
			}
			args := append(append([]string{}, flags...), "-fsyntax-only",
				filepath.Join(bp.dir, src))
			jobs = append(jobs, compileJob{name, src, args})
		}
	}
	if len(jobs) == 0 {
		bp.errorf("no device source found")
		return
	}
	// One compiler per core; errors are reported in the file's order.
	outputs := make([][]byte, len(jobs))
	failed := make([]bool, len(jobs))
	next := make(chan int)
	var wg sync.WaitGroup
	for w := 0; w < runtime.NumCPU(); w++ {
		wg.Add(1)
		go func() {
			defer wg.Done()
			for i := range next {
				out, err := exec.Command(compiler, jobs[i].args...).CombinedOutput()
				outputs[i], failed[i] = out, err != nil
			}
		}()
	}
	for i := range jobs {
		next <- i
	}
	close(next)
	wg.Wait()
	for i, job := range jobs {
		if failed[i] {
			bp.errorf("%s: %s does not compile for the device:\n%s", job.module, job.src,
				outputs[i])
		}
	}
	fmt.Printf("bpcheck: %d device compiles\n", len(jobs))
}

func main() {
	if len(os.Args) < 3 || (os.Args[1] != "check" && os.Args[1] != "compile") ||
		(os.Args[1] == "compile" && len(os.Args) < 4) {
		fmt.Fprintln(os.Stderr, "usage: bpcheck check Android.bp | bpcheck compile Android.bp COMPILER [FLAG...]")
		os.Exit(2)
	}
	bp, err := load(os.Args[2])
	if err != nil {
		fmt.Fprintln(os.Stderr, err)
		os.Exit(1)
	}
	if os.Args[1] == "check" {
		bp.check()
	} else {
		bp.compile(os.Args[3], os.Args[4:])
	}
	for _, e := range bp.errors {
		fmt.Fprintln(os.Stderr, "bpcheck: "+e)
	}
	if len(bp.errors) > 0 {
		os.Exit(1)
	}
}
